#include "vorn/operators/OperatorCatalog.hpp"

#include <boost/make_shared.hpp>

#include "ImageFileCodecs.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/operators/BinaryThreshold.hpp"
#include "vorn/operators/CastOperator.hpp"
#include "vorn/operators/Components.hpp"
#include "vorn/operators/CropOperator.hpp"
#include "vorn/operators/DistanceMap.hpp"
#include "vorn/operators/FlipOperator.hpp"
#include "vorn/operators/GaussianDerivatives.hpp"
#include "vorn/operators/GaussianSmoothing.hpp"
#include "vorn/operators/ImageFileReader.hpp"
#include "vorn/operators/ImageFileWriter.hpp"
#include "vorn/operators/LabelStatistics.hpp"
#include "vorn/operators/MaskOperator.hpp"
#include "vorn/operators/MathOperator.hpp"
#include "vorn/operators/MedianFilter.hpp"
#include "vorn/operators/Morphology.hpp"
#include "vorn/operators/OtsuThreshold.hpp"
#include "vorn/operators/PadOperator.hpp"
#include "vorn/operators/ResampleOperator.hpp"
#include "vorn/operators/RescaleIntensity.hpp"
#include "vorn/operators/StatisticsOperator.hpp"

namespace vorn {
namespace {

template <class T>
boost::shared_ptr<ProcessObject> make() {
  return boost::make_shared<T>();
}

boost::shared_ptr<ProcessObject> makeMathOfTwo() { return boost::make_shared<MathOperator>(2); }

const char* const kMathOps = "add, sub, mul, div, min, max; abs, sqrt, log, exp, neg (math)";
const OperatorParameterInfo kOutputType{"type", "float",
                                        "output pixel type: uchar, short or float"};

std::vector<OperatorParameterInfo> footprint() {
  return {{"radius", "1", "in pixels: one value for every axis, or one per axis (3,3,1)"},
          {"shape", "ball", "ball (pixels within the radius) or box (2 radius + 1 per axis)"}};
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
      // Intensity and geometry operators.
      {"math",
       "Pixel-wise arithmetic of one image: with value= (add, sub, ...) or alone (abs, sqrt, ...).",
       {{"op", "add", kMathOps},
        {"value", "", "the number for add, sub, mul, div, min, max"},
        kOutputType},
       1,
       1,
       &make<MathOperator>},
      {"math2",
       "Pixel-wise arithmetic of two images of the same size: input 0 op input 1.",
       {{"op", "add", "add, sub, mul, div, min or max"}, {"value", "", "not used"}, kOutputType},
       2,
       1,
       &makeMathOfTwo},
      {"rescale",
       "Maps [in_min,in_max] linearly onto [out_min,out_max], clipped.",
       {{"in_min", "", "empty: the image's minimum"},
        {"in_max", "", "empty: the image's maximum"},
        {"out_min", "0", "value in_min maps to"},
        {"out_max", "1", "value in_max maps to"},
        kOutputType},
       1,
       1,
       &make<RescaleIntensity>},
      {"otsu",
       "A uchar 0/1 mask of the pixels above Otsu's threshold (256 bins over the range).",
       {{"threshold", "", "empty: Otsu's threshold of the image; a number: that threshold"}},
       1,
       1,
       &make<OtsuThreshold>},
      {"crop",
       "The box start=, size= of the image; the origin follows.",
       {{"start", "0", "first pixel per axis (one value for all)"},
        {"size", "", "pixels per axis (empty: to the end)"}},
       1,
       1,
       &make<CropOperator>},
      {"pad",
       "Grows each axis by before= and after= pixels: constant, edge or reflect.",
       {{"before", "0", "pixels added at the start of each axis"},
        {"after", "0", "pixels added at the end of each axis"},
        {"mode", "constant", "constant, edge or reflect (numpy's reflect)"},
        {"value", "0", "the constant"}},
       1,
       1,
       &make<PadOperator>},
      {"flip",
       "Reverses the pixels along axes= (empty: every axis).",
       {{"axes", "", "axes to reverse, e.g. 0,2"}},
       1,
       1,
       &make<FlipOperator>},
      {"permute",
       "Reorders the axes: output axis k is input axis order[k].",
       {{"order", "", "a permutation, e.g. 2,0,1 (empty: reversed)"}},
       1,
       1,
       &make<PermuteAxes>},
      {"resample",
       "The image on a new grid of the same extent (spacing= or size=), interpolated.",
       {{"spacing", "", "new spacing per axis (one value for all)"},
        {"size", "", "new pixels per axis (instead of spacing)"},
        {"order", "1", "0 nearest, 1 linear, 3 cubic B-spline"}},
       1,
       1,
       &make<ResampleOperator>},
      {"labelstats",
       "Passes input 0 through and prints stats and the box of each label of input 1.",
       {},
       2,
       1,
       &make<LabelStatistics>},
      // Filters and morphology.
      {"median",
       "Median over a box, into an image of the input's type.",
       {{"size", "3", "odd, in pixels: one value for every axis, or one per axis (5,5,3)"}},
       1,
       1,
       &make<MedianFilter>},
      {"gradient",
       "Gaussian gradient magnitude into a float image.",
       {{"sigma", "1", "in pixels, above 0: one value for every axis, or one per axis"}},
       1,
       1,
       &make<GradientMagnitude>},
      {"laplace",
       "Laplacian of Gaussian into a float image.",
       {{"sigma", "1", "in pixels, above 0: one value for every axis, or one per axis"}},
       1,
       1,
       &make<LaplacianOfGaussian>},
      {"erode", "Grey erosion: the minimum over a ball or box.", footprint(), 1, 1, &make<Erosion>},
      {"dilate", "Grey dilation: the maximum over a ball or box.", footprint(), 1, 1,
       &make<Dilation>},
      {"open", "Grey opening: the dilation of the erosion.", footprint(), 1, 1, &make<Opening>},
      {"close", "Grey closing: the erosion of the dilation.", footprint(), 1, 1, &make<Closing>},
      {"label",
       "Numbers the connected components of the non-zero pixels, into a float image.",
       {{"connectivity", "face", "face (2N neighbours) or full (3^N - 1)"}},
       1,
       1,
       &make<ConnectedComponents>},
      {"largest",
       "Keeps the largest connected components, as a uchar mask of 0 and 1.",
       {{"count", "1", "how many components to keep"},
        {"connectivity", "face", "face (2N neighbours) or full (3^N - 1)"}},
       1,
       1,
       &make<LargestComponents>},
      {"fill",
       "Fills the holes of a mask, as a uchar mask of 0 and 1.",
       {},
       1,
       1,
       &make<FillHoles>},
      {"distance",
       "Euclidean distance of each non-zero pixel to the nearest zero, in spacing units (float).",
       {},
       1,
       1,
       &make<DistanceMap>},
  };
}

bool declaresThreads(const OperatorInfo& info) {
  // Kept, never destroyed: an operator's destructor writes a line on std::cout.
  static auto* probes = new std::vector<boost::shared_ptr<ProcessObject>>();
  probes->push_back(info.create());
  for (const Parameter* parameter : probes->back()->getParameters()) {
    if (parameter->getIDName() == "threads") return true;
  }
  return false;
}

// Every operator that splits its pixel work declares `threads`; the entries need not repeat it.
std::vector<OperatorInfo> withThreads(std::vector<OperatorInfo> catalog) {
  for (OperatorInfo& info : catalog) {
    if (declaresThreads(info)) {
      info.parameters.push_back(
          {"threads", "",
           "threads for its pixel work (empty: the library's count, 0: every core)"});
    }
  }
  return catalog;
}

}  // namespace

const std::vector<OperatorInfo>& operatorCatalog() {
  static const std::vector<OperatorInfo> catalog = withThreads(buildCatalog());
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
