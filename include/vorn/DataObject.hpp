// vorn/DataObject.hpp
//
// DataObject: what flows along a connection between operators. A data object has no freshness
// of its own: it is up to date exactly when its generator (the operator whose output port holds
// it) is not invalidated, and update() asks a stale generator to update. It also carries two
// regions of interest and the name of its data type, which output ports compare.
//
// Lifetime: held through boost::shared_ptr by its output port and by anyone who asked for it.
// The generator is a plain back-pointer: the operator clears it when it is destroyed, so a data
// object kept by a client ends with a null generator and counts as up to date from then on.
#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include "vorn/Export.hpp"
#include "vorn/Object.hpp"
#include "vorn/PixelType.hpp"

namespace vorn {

class Box;
class ProcessObject;
class RoiObject;

class VORN_API DataObject : public Object {
 public:
  DataObject();
  explicit DataObject(ProcessObject* generator);
  // Releases the regions and the name; notifies nobody and leaves the generator alone.
  ~DataObject() override;

  // Asks the generator to update when there is one and it is invalidated; otherwise nothing.
  // A generator in the middle of its own update() that stale operators lead back to (a cycle)
  // makes this throw std::ios_base::failure naming it, instead of recursing without end.
  void update() override;
  // Pure, with a body that writes the generator line; derived classes call it from theirs.
  virtual void print() const = 0;
  // PixelType::UNKNOWN means nothing has been computed into this data yet.
  virtual PixelType::Type getPointType() const = 0;
  virtual const Box& getBufferedRegion() const = 0;

  // True without a generator; otherwise the negation of the generator's isInvalidated().
  bool isUptodate();
  void setGenerator(ProcessObject* generator);
  ProcessObject* getGenerator() const;

  // Public on purpose: an operator's generateData() reads its inputs' and outputs' regions.
  boost::shared_ptr<RoiObject const> m_regionOfInterest;           // the region to compute
  boost::shared_ptr<RoiObject const> m_requestedRegionOfInterest;  // asked for on this output
  std::string m_dataObjectName;                                    // "ImageObject" for images

 protected:
  ProcessObject* m_generator;  // back-pointer; ~ProcessObject nulls it on data still held
};

}  // namespace vorn
