// vorn/operators/ImageFileReader.hpp
//
// ImageFileReader: the source operator of a pipeline, reading an image file of any format
// ImageFile.hpp lists (and says what each gives) into the image on its one output.
//
//   vorn::ImageFileReader reader;
//   reader.setParameterValue("file", "head.nii.gz");
//   reader.update();  // a file that cannot be read fails with std::ios_base::failure
//
// Parameters: `file` (no default), the path of the file, or of a folder read as one DICOM
// series; `series` (default empty), the Series Instance UID to read from a DICOM folder that
// holds several (empty: the folder's only one).
//
// A failed read leaves the output image as it was. An empty `file` is a bad parameter.
#pragma once

#include "vorn/ProcessObject.hpp"
#include "vorn/operators/Export.hpp"

namespace vorn {

// An operator reading an image file, its format recognised by its content.
class VORN_OPERATORS_API ImageFileReader : public ProcessObject {
 public:
  ImageFileReader();
  void generateData() override;
};

}  // namespace vorn
