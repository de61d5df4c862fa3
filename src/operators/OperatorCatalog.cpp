#include "vorn/operators/OperatorCatalog.hpp"

#include <boost/make_shared.hpp>

#include "ImageFileCodecs.hpp"
#include "vorn/operators/BinaryThreshold.hpp"
#include "vorn/operators/CastOperator.hpp"
#include "vorn/operators/GaussianSmoothing.hpp"
#include "vorn/operators/ImageFileReader.hpp"
#include "vorn/operators/ImageFileWriter.hpp"
#include "vorn/operators/MaskOperator.hpp"
#include "vorn/operators/StatisticsOperator.hpp"

namespace vorn {
namespace {

template <class T>
boost::shared_ptr<ProcessObject> make() {
  return boost::make_shared<T>();
}

std::vector<OperatorInfo> buildCatalog() {
  return {
      {"read",
       "Reads an image file recognised by its content: " + detail::codecNames() + ".",
       {{"file", "", "path of the image file, or of a folder holding a DICOM series"},
        {"series", "", "DICOM: Series Instance UID to read from a folder of several"}},
       0,
       1,
       &make<ImageFileReader>},
      {"write",
       "Writes its input; the extension picks the format: " + detail::writableExtensions() + ".",
       {{"file", "", "path of the file to write"}},
       1,
       0,
       &make<ImageFileWriter>},
      {"cast",
       "Converts to another pixel type, rounding and clamping towards integer types.",
       {{"type", "float", "uchar, short or float"}},
       1,
       1,
       &make<CastOperator>},
      {"gaussian",
       "Gaussian smoothing into a float image.",
       {{"sigma", "1", "in pixels: one value for every axis, or one per axis (2,1,0.5)"}},
       1,
       1,
       &make<GaussianSmoothing>},
      {"threshold",
       "A uchar image: inside where lower <= value <= upper, outside elsewhere.",
       {{"lower", "", "lowest value inside (empty: no lower bound)"},
        {"upper", "", "highest value inside (empty: no upper bound)"},
        {"inside", "1", "value of the pixels inside, 0 to 255"},
        {"outside", "0", "value of the pixels outside, 0 to 255"}},
       1,
       1,
       &make<BinaryThreshold>},
      {"mask",
       "Zeroes the pixels of input 0 where the uchar mask on input 1 is 0.",
       {},
       2,
       1,
       &make<MaskOperator>},
      {"stats",
       "Passes its input through and prints count, min, max, mean, stddev and sum.",
       {},
       1,
       1,
       &make<StatisticsOperator>},
  };
}

}  // namespace

const std::vector<OperatorInfo>& operatorCatalog() {
  static const std::vector<OperatorInfo> catalog = buildCatalog();
  return catalog;
}

const OperatorInfo* findOperator(const std::string& name) {
  for (const OperatorInfo& info : operatorCatalog()) {
    if (info.name == name) return &info;
  }
  return nullptr;
}

boost::shared_ptr<ProcessObject> createOperator(const std::string& name) {
  const OperatorInfo* info = findOperator(name);
  return info != nullptr ? info->create() : boost::shared_ptr<ProcessObject>();
}

}  // namespace vorn
