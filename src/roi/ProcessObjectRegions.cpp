// Region-of-interest propagation: the region operations of ProcessObject.
#include <iostream>

#include "vorn/DataObject.hpp"
#include "vorn/PortData.hpp"
#include "vorn/PortProxy.hpp"
#include "vorn/ProcessObject.hpp"
#include "vorn/RoiObject.hpp"

namespace vorn {

void ProcessObject::setRequestedRegionOfInterest(unsigned int index,
                                                 boost::shared_ptr<RoiObject const> roi) {
  const Port* output = getOutputPort(index);
  const boost::shared_ptr<DataObject> data = output ? output->getData() : nullptr;
  if (!data) {
    std::cout << "ProcessObject::setRequestedRegionOfInterest no output data at index " << index
              << std::endl;
    return;
  }
  data->m_requestedRegionOfInterest = roi;
  data->m_regionOfInterest = roi;
  setToInvalidated();
}

void ProcessObject::generateOutputRegionOfInterest() {
  if (m_ignorePreviousROI) return;
  // The region of input 0 passes only between operators of the same composite; an input
  // without data, or data without generator, has no region to pass on. Data objects are looked
  // at, not shared: this runs before every computation.
  static const boost::shared_ptr<RoiObject const> none;
  const boost::shared_ptr<RoiObject const>* previous = &none;
  boost::shared_ptr<DataObject> holder;
  if (!m_inputs.empty()) {
    const DataObject* first = internal::peekData(m_inputs[0], holder);
    const ProcessObject* generator = first ? first->getGenerator() : nullptr;
    if (generator != nullptr && generator->getParent() == m_parent) {
      previous = &first->m_regionOfInterest;
    }
  }
  for (std::size_t i = 0; i < m_outputs.size(); ++i) {
    boost::shared_ptr<DataObject> outputHolder;
    DataObject* const data = internal::peekData(m_outputs[i], outputHolder);
    if (data == nullptr) continue;  // a composite's output that leads nowhere
    data->m_regionOfInterest =
        data->m_requestedRegionOfInterest ? data->m_requestedRegionOfInterest : *previous;
  }
}

bool ProcessObject::isIgnorePreviousROI() { return m_ignorePreviousROI; }

void ProcessObject::setIgnorePreviousROI(bool ignore) { m_ignorePreviousROI = ignore; }

}  // namespace vorn
