#include "vorn/RoiObject.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "CoutCapture.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/MaskRoi.hpp"

namespace {

std::string printed(const vorn::RoiObject& roi) {
  std::ostringstream os;
  roi.printSelf(os);
  return os.str();
}

// Tests a box region: a deep copy that is its own bounding box, printed after its label.
TEST(RoiObject, BoxRoi) {
  vorn::BoxRoi roi;
  vorn::Box box(1);
  box.m_size[0] = 4;
  roi.setBox(box);
  box.m_size[0] = 9;
  EXPECT_EQ(&roi.getBox(), &roi.getBoundingBox());
  EXPECT_EQ(4u, roi.getBox().m_size[0]);
  EXPECT_EQ(0u, printed(roi).find("Region of interest de type 'box'Box : adress = " +
                                  addressText(&roi.getBox()) + "\nDimension: 1\n"));
}

// Tests a mask region: it shares the image and answers its box; without an image, an empty box.
TEST(RoiObject, MaskRoi) {
  boost::shared_ptr<vorn::ImageObject> mask(new vorn::ImageObject);
  mask->Allocate(vorn::PixelType::UCHAR, vorn::Box(1));
  vorn::MaskRoi roi;
  roi.setMaskImage(mask);
  EXPECT_EQ(mask, roi.getMaskImage());
  EXPECT_EQ(&mask->getBufferedRegion(), &roi.getBoundingBox());
  std::string text;
  EXPECT_EQ(0u, printedBy([&] { text = printed(roi); }).find("DataObjectName : ImageObject"));
  EXPECT_EQ(0u, text.find("Region of interest de type 'image mask'Box : adress = " +
                          addressText(&mask->getBufferedRegion())));
  roi.setMaskImage(boost::shared_ptr<vorn::DataObject>());
  EXPECT_FALSE(roi.getMaskImage());
  EXPECT_EQ("", printedBy([&] { text = printed(roi); }));  // no image to print
  EXPECT_EQ("Region of interest de type 'image mask'Box : adress = " +
                addressText(&roi.getBoundingBox()) + "\nDimension: 0\n",
            text);
  EXPECT_TRUE((zelTools::isMapping<vorn::MaskRoi, std::string>("MaskRoi")));
  EXPECT_FALSE((zelTools::isMapping<vorn::MaskRoi, std::string>("maskRoi")));
  EXPECT_FALSE((zelTools::isMapping<vorn::BoxRoi, std::string>("BoxRoi ")));
}

}  // namespace
