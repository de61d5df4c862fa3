// crop, pad, flip, permute and resample against NumPy slicing, numpy.pad, numpy.flip,
// numpy.transpose and scipy.ndimage.map_coordinates; and the properties every operator that
// computes only its region of interest must keep.
#include <string>
#include <vector>

#include <boost/make_shared.hpp>

#include "ReferenceSupport.hpp"
#include "vorn/BoxRoi.hpp"

namespace {

std::vector<float> ramp(int count) {
  std::vector<float> values;
  for (int i = 0; i < count; ++i) values.push_back(static_cast<float>(i));
  return values;
}

struct Expected {
  const char* name;
  Parameters parameters;
  std::vector<unsigned long> size;  // axis 0 first
  std::vector<double> spacing;
  std::vector<double> origin;
  std::vector<double> values;
};

// The 4 x 3 ramp g = np.arange(12).reshape(3, 4) of spacing (0.5, 1.5), origin (0, -1.25).
const Expected kRampCases[] = {
    {"crop", {{"start", "1"}, {"size", "2,5"}}, {2, 2}, {0.5, 1.5}, {0.5, 0.25}, {5, 6, 9, 10}},
    {"pad",
     {{"before", "2,1"}, {"after", "1,0"}, {"mode", "reflect"}},
     {7, 4},
     {0.5, 1.5},
     {-1, -2.75},
     {6, 5, 4, 5, 6, 7, 6, 2, 1, 0, 1, 2, 3, 2, 6, 5, 4, 5, 6, 7, 6, 10, 9, 8, 9, 10, 11, 10}},
    {"pad",
     {{"before", "1,0"}, {"after", "0,1"}, {"mode", "edge"}},
     {5, 4},
     {0.5, 1.5},
     {-0.5, -1.25},
     {0, 0, 1, 2, 3, 4, 4, 5, 6, 7, 8, 8, 9, 10, 11, 8, 8, 9, 10, 11}},
    {"pad",
     {{"before", "1"}, {"value", "-1"}},
     {5, 4},
     {0.5, 1.5},
     {-0.5, -2.75},
     {-1, -1, -1, -1, -1, -1, 0, 1, 2, 3, -1, 4, 5, 6, 7, -1, 8, 9, 10, 11}},
    {"flip",
     {{"axes", "0"}},
     {4, 3},
     {0.5, 1.5},
     {0, -1.25},
     {3, 2, 1, 0, 7, 6, 5, 4, 11, 10, 9, 8}},
};

void expectResult(const vorn::ImageObject& out, const Expected& e) {
  const std::string what = describe(e.name, e.parameters);
  ASSERT_EQ(out.getDimension(), e.size.size()) << what;
  for (unsigned axis = 0; axis < e.size.size(); ++axis) {
    EXPECT_EQ(out.getBufferedRegion().m_size[axis], e.size[axis]) << what << ", axis " << axis;
    EXPECT_DOUBLE_EQ(out.getSpacing(axis), e.spacing[axis]) << what << ", axis " << axis;
    EXPECT_DOUBLE_EQ(out.getOrigin(axis), e.origin[axis]) << what << ", axis " << axis;
  }
  expectMatches(valuesOf(out), e.values, what);
}

TEST(Geometry, MatchesNumPyOnARamp) {
  const ImagePtr ramp2d = makeImage<float>({4, 3}, ramp(12));
  for (const Expected& e : kRampCases) {
    expectResult(*outputOf(*runCatalog(e.name, e.parameters, {ramp2d})), e);
  }
  // np.pad(np.arange(4), (7, 5), 'reflect'): mirrored again past the far edge.
  expectResult(*outputOf(*runCatalog("pad", {{"before", "7"}, {"after", "5"}, {"mode", "reflect"}},
                                     {makeImage<short>({4}, {0, 1, 2, 3})})),
               {"pad", {}, {16}, {0.5}, {-3.5}, {1, 0, 1, 2, 3, 2, 1, 0, 1, 2, 3, 2, 1, 0, 1, 2}});
  // np.transpose(np.arange(24).reshape(2, 3, 4), (1, 2, 0)).
  expectResult(
      *outputOf(
          *runCatalog("permute", {{"order", "2,0,1"}}, {makeImage<float>({4, 3, 2}, ramp(24))})),
      {"permute", {}, {2, 4, 3}, {2.5, 0.5, 1.5}, {-2.5, 0, -1.25}, {0, 12, 1,  13, 2,  14,
                                                                     3, 15, 4,  16, 5,  17,
                                                                     6, 18, 7,  19, 8,  20,
                                                                     9, 21, 10, 22, 11, 23}});
}

// scipy.ndimage.map_coordinates(x, [(origin' + i spacing' - origin) / spacing], order,
// mode='nearest') with origin' = origin - spacing / 2 + spacing' / 2.
TEST(Resample, MatchesMapCoordinates) {
  const ImagePtr line = makeImage<float>({6}, {0, 1, 4, 9, 3, -2});
  const Expected cases[] = {
      {"resample", {{"size", "4"}, {"order", "0"}}, {4}, {0.75}, {0.125}, {0, 4, 9, -2}},
      {"resample", {{"size", "4"}}, {4}, {0.75}, {0.125}, {0.25, 3.25, 7.5, -0.75}},
      {"resample",
       {{"size", "4"}, {"order", "3"}},
       {4},
       {0.75},
       {0.125},
       {0.1446217, 2.799704, 8.388403, -1.3045135}},
      {"resample",
       {{"spacing", "0.2"}, {"order", "0"}},
       {15},
       {0.2},
       {-0.15},
       {0, 0, 1, 1, 1, 4, 4, 9, 9, 9, 3, 3, -2, -2, -2}},
      {"resample",
       {{"spacing", "0.2"}},
       {15},
       {0.2},
       {-0.15},
       {0, 0.1, 0.5, 0.9, 1.9, 3.1, 4.5, 6.5, 8.5, 7.2, 4.8, 2.5, 0.5, -1.5, -2}},
      {"resample",
       {{"spacing", "0.2"}, {"order", "3"}},
       {15},
       {0.2},
       {-0.15},
       {-0.06699124, 0.047841504, 0.36679614, 0.8562517, 1.5060432, 2.6079323, 4.603418, 7.242786,
        8.931388, 8.152459, 5.4120445, 2.2540102, -0.21779504, -1.7708226, -2.3206115}},
  };
  for (const Expected& e : cases)
    expectResult(*outputOf(*runCatalog(e.name, e.parameters, {line})), e);
  const ImagePtr plane =
      makeImage<float>({5, 4}, {0, 1, 4, 9, 3, 2, 2, 8, -1, 0, 5, 7, 1, 1, 6, 0, 0, 3, 9, 2});
  expectResult(*outputOf(*runCatalog("resample", {{"size", "3,6"}, {"order", "3"}}, {plane})),
               {"resample 2-D cubic",
                {},
                {3, 6},
                {2.5 / 3, 1},
                {1.0 / 6, -1.5},
                {0.25674668, 3.5346591, 5.7435565, 0.17369266, 6.757214, 1.4654665, 2.3024092,
                 7.311135, -0.7968988, 5.9149055, 1.9121563, 3.6353283, 3.4113998, 1.1889383,
                 5.2935214, -0.6239189, 3.321824, 4.360497}});
}

// Integer pixels round and clamp as cast does, whatever the operator computes in between.
TEST(Geometry, IntegerPixelsRoundAndClamp) {
  const ImagePtr bytes = makeImage<unsigned char>({6}, {0, 255, 0, 255, 255, 0});
  // np.clip(np.rint(map_coordinates(x, ..., order=3, mode='nearest')), 0, 255): the cubic
  // overshoots both ends.
  expectResult(
      *outputOf(*runCatalog("resample", {{"size", "9"}, {"order", "3"}}, {bytes})),
      {"resample uchar", {}, {9}, {1.0 / 3}, {-1.0 / 12}, {0, 159, 233, 24, 88, 255, 255, 118, 0}});
  expectResult(*outputOf(*runCatalog("pad", {{"after", "2"}, {"value", "300"}}, {bytes})),
               {"pad uchar", {}, {8}, {0.5}, {0}, {0, 255, 0, 255, 255, 0, 255, 255}});
  // np.pad([5], 2, 'reflect'): a single pixel mirrors onto itself.
  expectResult(*outputOf(*runCatalog("pad", {{"before", "2"}, {"mode", "reflect"}},
                                     {makeImage<short>({1}, {5})})),
               {"pad one pixel", {}, {3}, {0.5}, {-1}, {5, 5, 5}});
}

TEST(Geometry, FlipTwiceAndPermuteBackGiveTheImage) {
  const ImagePtr image = makeImage<short>({5, 4, 3}, {3, -1, 4, 1, -5, 9, 2, 6});
  const auto flipped = outputOf(*runCatalog("flip", {{"axes", "2,0"}}, {image}));
  const auto back = outputOf(*runCatalog("flip", {{"axes", "0,2"}}, {flipped}));
  EXPECT_EQ(pixelBytes(*back), pixelBytes(*image));
  expectSameGeometry(*back, *image);
  const auto permuted = outputOf(*runCatalog("permute", {{"order", "1,2,0"}}, {image}));
  const auto restored = outputOf(*runCatalog("permute", {{"order", "2,0,1"}}, {permuted}));
  EXPECT_EQ(pixelBytes(*restored), pixelBytes(*image));
  expectSameGeometry(*restored, *image);
}

// Every operator that computes only its region of interest: inside the box the same bits as
// the whole computation, 0 outside, and the same bits for any thread count.
TEST(LocalOperators, RegionOfInterestAndThreadsChangeNoBit) {
  std::vector<float> values;
  for (int i = 0; i < 7 * 6 * 5; ++i) values.push_back(static_cast<float>((i * 37) % 23) - 7.5f);
  const ImagePtr image = makeImage<float>({7, 6, 5}, values);
  const std::pair<const char*, Parameters> cases[] = {
      {"math", {{"op", "log"}}},
      {"math", {{"op", "div"}, {"value", "3"}, {"type", "short"}}},
      {"rescale", {{"out_max", "255"}}},
      {"otsu", {}},
      {"crop", {{"start", "1,2,0"}, {"size", "5,3,4"}}},
      {"pad", {{"before", "3"}, {"after", "2"}, {"mode", "reflect"}}},
      {"flip", {}},
      {"permute", {{"order", "1,2,0"}}},
      {"resample", {{"spacing", "0.4,1,2"}, {"order", "1"}}},
      {"resample", {{"size", "5,9,4"}, {"order", "3"}}},
  };
  for (const auto& [name, parameters] : cases) {
    const std::string what = describe(name, parameters);
    Parameters threaded = parameters;
    threaded.emplace_back("threads", "3");
    const ImagePtr whole = outputOf(*runCatalog(name, parameters, {image}));
    EXPECT_EQ(pixelBytes(*outputOf(*runCatalog(name, threaded, {image}))), pixelBytes(*whole))
        << what;
    ImageSource source(image);
    const boost::shared_ptr<vorn::ProcessObject> op = vorn::createOperator(name);
    op->getInputPort(0)->connectTo(source.getOutputPort(0));
    for (const auto& [key, value] : parameters) op->setParameterValue(key, value);
    vorn::Box box(3);
    const long start[3] = {1, 2, 1};
    const unsigned long size[3] = {3, 2, 2};
    for (unsigned axis = 0; axis < 3; ++axis) {
      box.m_start[axis] = start[axis];
      box.m_size[axis] = size[axis];
    }
    auto roi = boost::make_shared<vorn::BoxRoi>();
    roi->setBox(box);
    op->setRequestedRegionOfInterest(0, roi);
    run(*op);
    const std::vector<double> full = valuesOf(*whole);
    const std::vector<double> part = valuesOf(*outputOf(*op));
    const vorn::Box& extent = whole->getBufferedRegion();
    ASSERT_EQ(part.size(), full.size()) << what;
    for (std::size_t k = 0; k < full.size(); ++k) {
      const unsigned long x = k % extent.m_size[0];
      const unsigned long y = k / extent.m_size[0] % extent.m_size[1];
      const unsigned long z = k / extent.m_size[0] / extent.m_size[1];
      const bool inside = x - 1 < 3 && y - 2 < 2 && z - 1 < 2;
      if (inside) {
        EXPECT_TRUE(full[k] == part[k] || (std::isnan(full[k]) && std::isnan(part[k])))
            << what << ", pixel " << k;
      } else {
        EXPECT_EQ(part[k], 0.0) << what << ", pixel " << k;
      }
    }
  }
}

}  // namespace
