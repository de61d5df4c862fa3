#include "vorn/operators/ImageFileReader.hpp"

#include <string>

#include "OperatorSupport.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace vorn {

ImageFileReader::ImageFileReader() {
  setName("ImageFileReader");
  addOutput("ImageObject");
  addParameter(new Parameter("file", ""));
  addParameter(new Parameter("series", ""));
}

void ImageFileReader::generateData() {
  const std::string file = getParameterValue("file");
  if (file.empty()) detail::throwBadParameter(*this, "file", file, "no file name given");
  ImageReadOptions options;
  options.series = getParameterValue("series");
  readImageFile(file, *detail::outputImage(*this, 0), options);
}

}  // namespace vorn
