// vorn/operators/ImageFileWriter.hpp
//
// ImageFileWriter: the sink operator of a pipeline, writing the image on its one input to the
// file named by `file` (.png, .nii or .nii.gz, see ImageFile.hpp).
//
//   vorn::ImageFileWriter writer;
//   writer.setParameterValue("file", "smoothed.nii.gz");
//   writer.getInputPort(0)->connectTo(smoothing.getOutputPort(0));
//   writer.update();
//
// Deferred commit, for a run that must leave no output unless everything succeeded: while it
// is on, a computation writes the complete file under a temporary name in the target's folder
// and stops there; commit() renames it over the target, discard() removes it. A later
// computation replaces the pending file, and the destructor discards one still pending.
// The target is the `file` of the computation that wrote the pending file.
#pragma once

#include <string>

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// An operator writing its input to a PNG or NIfTI-1 file.
class VORN_OPERATORS_API ImageFileWriter : public ProcessObject {
 public:
  ImageFileWriter();
  ~ImageFileWriter() override;
  void generateData() override;

  // Deferred: the file is written to a temporary file until commit().
  void setDeferredCommit(bool deferred);
  // Whether writing is deferred.
  bool getDeferredCommit() const;
  // Renames the pending file over its target; nothing when none is pending. On failure the
  // pending file is removed and ImageFileError is thrown; the target is left as it was.
  void commit();
  // Removes the pending file; nothing when none is pending.
  void discard();
  // Whether a deferred file waits for commit() or discard().
  bool hasPendingFile() const;

 private:
  bool m_deferred = false;
  std::string m_pendingFile;    // the temporary file, empty when none is pending
  std::string m_pendingTarget;  // the file it is meant to become
};

}  // namespace vorn
