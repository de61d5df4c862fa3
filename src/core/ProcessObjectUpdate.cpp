// The update engine: ProcessObject::update, updateWithNoRepercussion and updateOutputData.
#include <ctime>
#include <exception>
#include <iostream>
#include <string>

#include "vorn/DataObject.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/Repercussion.hpp"

namespace vorn {
namespace {

std::ios_base::failure noData(const char* operation, const std::string& name, const char* what) {
  return std::ios_base::failure(std::string("vorn::ProcessObject::") + operation + "\n" +
                                "One input of the operator " + name + what +
                                " : processings cannot be performed\n");
}

// Marks an operator as being updated for the lifetime of one update() call, exceptions
// included. A nested call (an observer updating again) leaves the outer call's mark in place.
class UpdatingFlag {
 public:
  explicit UpdatingFlag(bool& flag) : m_flag(flag), m_previous(flag) { m_flag = true; }
  ~UpdatingFlag() { m_flag = m_previous; }
  UpdatingFlag(const UpdatingFlag&) = delete;
  UpdatingFlag& operator=(const UpdatingFlag&) = delete;

 private:
  bool& m_flag;
  const bool m_previous;
};

}  // namespace

void ProcessObject::update() {
  if (!Repercussion::isEnable()) {
    updateWithNoRepercussion();
    return;
  }
  const UpdatingFlag updating(m_isUpdating);
  for (std::size_t i = 0; i < m_inputs.size(); ++i) {
    const boost::shared_ptr<DataObject> data = m_inputs[i]->getData();
    if (!data) throw noData("update()", m_name, " has no data");
    if (!data->isUptodate() && Repercussion::isEnable()) data->update();
  }
  // An upstream computation may have switched repercussion off: then compute regardless.
  if (isInvalidated() || !Repercussion::isEnable()) {
    generateOutputRegionOfInterest();
    updateOutputData();
  }
  setToValidated();
}

void ProcessObject::updateWithNoRepercussion() {
  for (std::size_t i = 0; i < m_inputs.size(); ++i) {
    const boost::shared_ptr<DataObject> data = m_inputs[i]->getData();
    if (!data) throw noData("updateWithNoRepercussion()", m_name, " has no allocated data");
    if (data->getPointType() == PixelType::UNKNOWN) {
      throw noData("updateWithNoRepercussion()", m_name, " has no computed data");
    }
  }
  generateOutputRegionOfInterest();
  updateOutputData();
}

void ProcessObject::updateOutputData() {
  fireOnStartComputingData();
  std::cout << "Processing with operator : " << m_name
            << " - adr : " << static_cast<const void*>(this) << std::flush;
  const std::clock_t start = std::clock();
  try {
    generateData();
    // 1000000.0 rather than CLOCKS_PER_SEC: the printed figure is defined as clock ticks over a
    // million, which POSIX makes the same thing.
    std::cout << ". Computation done in " << static_cast<double>(std::clock() - start) / 1000000.0
              << " s " << std::endl;
  } catch (const std::exception& e) {
    throw std::ios_base::failure("Operator " + m_name + " has caught an exception\n" + e.what());
  }
  notifyDataHasBeenGenerated();
}

}  // namespace vorn
