// The update engine: ProcessObject::update, the cycle check, updateWithNoRepercussion and
// updateOutputData.
#include <ctime>
#include <exception>
#include <iostream>
#include <set>
#include <string>
#include <vector>

#include "core/Reentrancy.hpp"
#include "core/StackDepth.hpp"
#include "vorn/DataObject.hpp"
#include "vorn/PixelType.hpp"
#include "vorn/PortData.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/Repercussion.hpp"

namespace vorn {
namespace {

// Stack kept for the computation and observers at the deepest level of an update: update()
// refuses to pull further upstream below it.
constexpr std::size_t kUpdateReserve = 256 * 1024;

std::ios_base::failure noData(const char* operation, const std::string& name, const char* what) {
  return std::ios_base::failure(std::string("vorn::ProcessObject::") + operation + "\n" +
                                "One input of the operator " + name + what +
                                " : processings cannot be performed\n");
}

// Out of line, like computeAndValidate below: the frame of update() is paid once per operator
// of a chain, so it holds only what the pull upstream needs.
[[noreturn]] [[gnu::noinline]] void throwNoData(const std::string& name) {
  throw noData("update()", name, " has no data");
}

[[noreturn]] [[gnu::noinline]] void throwTooDeep(const std::string& name) {
  throw std::ios_base::failure(
      "vorn::ProcessObject::update()\nThe chain upstream of the operator " + name +
      " is too deep : update it in parts\n");
}

// One update() call on the stack: marks the operator as updating for the call's lifetime,
// exceptions included (a nested call, an observer updating again, leaves the outer call's mark in
// place), and notices when an observer destroys the operator meanwhile.
class UpdateScope {
 public:
  UpdateScope(const ProcessObject* op, bool& flag)
      : m_presence(op), m_flag(flag), m_previous(flag) {
    m_flag = true;
  }
  ~UpdateScope() {
    if (!m_presence.gone()) m_flag = m_previous;
  }
  UpdateScope(const UpdateScope&) = delete;
  UpdateScope& operator=(const UpdateScope&) = delete;

  void throwIfGone() const {
    if (m_presence.gone()) internal::throwDestroyedDuringUpdate();
  }

 private:
  internal::Presence m_presence;
  bool& m_flag;
  const bool m_previous;
};

// Whether each input still holds data that is up to date: what the computation read may have
// gone stale during it (an observer invalidating upstream) or been disconnected.
bool inputsAreUpToDate(const ProcessObject& op) {
  for (unsigned int i = 0; i < op.getNumberOfInputPorts(); ++i) {
    boost::shared_ptr<DataObject> holder;
    DataObject* const data = internal::peekData(op.getInputPort(i), holder);
    if (data == nullptr || !data->isUptodate()) return false;
  }
  return true;
}

// What update() does once the inputs are up to date.
[[gnu::noinline]] void computeAndValidate(ProcessObject& op) {
  // An upstream computation may have switched repercussion off: then compute regardless.
  const bool compute = op.isInvalidated() || !Repercussion::isEnable();
  if (compute) {
    op.generateOutputRegionOfInterest();
    op.updateOutputData();
  }
  // Only a computation can have let an input go stale since the inputs were brought up to date.
  if (compute && Repercussion::isEnable() && !inputsAreUpToDate(op)) return;
  op.setToValidated();
}

}  // namespace

void ProcessObject::update() {
  if (!Repercussion::isEnable()) {
    updateWithNoRepercussion();
    return;
  }
  // Up to date with nobody listening: nothing runs that could destroy this operator or update it
  // again, so the bookkeeping for that is skipped.
  if (m_observers.empty() && !isInvalidated() && inputsAreUpToDate(*this)) {
    setToValidated();
    return;
  }
  const UpdateScope scope(this, m_isUpdating);
  for (std::size_t i = 0; i < m_inputs.size(); ++i) {
    // Not a share: nothing touches the data once its update() has returned, even if that update
    // destroyed the operator that held it.
    boost::shared_ptr<DataObject> holder;
    DataObject* const data = internal::peekData(m_inputs[i], holder);
    if (data == nullptr) throwNoData(m_name);
    if (data->isUptodate() || !Repercussion::isEnable()) continue;
    if (internal::stackIsLow(kUpdateReserve)) throwTooDeep(m_name);
    data->update();
    scope.throwIfGone();
  }
  computeAndValidate(*this);
}

bool ProcessObject::isUpdating() const { return m_isUpdating; }

bool ProcessObject::isOnStaleCycle() {
  std::vector<ProcessObject*> pending{this};
  std::set<ProcessObject*> seen;
  while (!pending.empty()) {
    ProcessObject* const current = pending.back();
    pending.pop_back();
    for (std::size_t i = 0; i < current->m_inputs.size(); ++i) {
      const PortProxy* const input = current->m_inputs[i];
      const boost::shared_ptr<DataObject> data = input ? input->getData() : nullptr;
      ProcessObject* const upstream = data ? data->getGenerator() : nullptr;
      if (upstream == nullptr || !upstream->isInvalidated()) continue;
      if (upstream == this) return true;
      if (seen.insert(upstream).second) pending.push_back(upstream);
    }
  }
  return false;
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
  const internal::Presence present(this);
  fireOnStartComputingData();
  if (present.gone()) internal::throwDestroyedDuringUpdate();
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
    if (present.gone()) internal::throwDestroyedDuringUpdate();
    throw std::ios_base::failure("Operator " + m_name + " has caught an exception\n" + e.what());
  }
  if (present.gone()) internal::throwDestroyedDuringUpdate();
  notifyDataHasBeenGenerated();
  if (present.gone()) internal::throwDestroyedDuringUpdate();
}

}  // namespace vorn
