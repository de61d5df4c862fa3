#include "vorn/RoiObject.hpp"

#include <gtest/gtest.h>

#include <sstream>

#include "CoutCapture.hpp"
#include "vorn/BoxRoi.hpp"
#include "vorn/ImageObject.hpp"
#include "vorn/MaskRoi.hpp"

namespace {

using vorn::Box;

// Tests a box region: empty at first, then a deep copy that is its own bounding box.
TEST(BoxRoi, HoldsACopyOfItsBox) {
  vorn::BoxRoi roi;
  EXPECT_EQ(0u, roi.getBoundingBox().m_dimension);
  std::ostringstream os;
  roi.printSelf(os);
  EXPECT_EQ("Region of interest de type 'box'Box : adress = " + addressText(&roi.getBox()) +
                "\nDimension: 0\n",
            os.str());

  Box box(2);
  box.m_size[0] = 4;
  roi.setBox(box);
  EXPECT_EQ(&roi.getBox(), &roi.getBoundingBox());
  EXPECT_TRUE(roi.getBoundingBox() == box);
  box.m_size[0] = 9;
  EXPECT_EQ(4u, roi.getBox().m_size[0]);
}

// Tests a mask region: it shares the image and answers the image's own box; anything but an
// image leaves it without mask, with an empty bounding box and a short printed form.
TEST(MaskRoi, SharesItsMaskImage) {
  boost::shared_ptr<vorn::ImageObject> mask(new vorn::ImageObject);
  Box box(1);
  box.m_size[0] = 3;
  mask->Allocate(vorn::PixelType::UCHAR, box);

  vorn::MaskRoi roi;
  roi.setMaskImage(mask);
  EXPECT_EQ(mask, roi.getMaskImage());
  EXPECT_EQ(2, mask.use_count());  // ours and the region's: shared, not copied
  EXPECT_EQ(&mask->getBufferedRegion(), &roi.getBoundingBox());

  CoutCapture out;
  std::ostringstream os;
  roi.printSelf(os);
  EXPECT_EQ(0u, os.str().find("Region of interest de type 'image mask'Box : adress = " +
                              addressText(&mask->getBufferedRegion())));
  EXPECT_EQ(0u, out.str().find("DataObjectName : ImageObject"));  // the image prints to cout

  roi.setMaskImage(boost::shared_ptr<vorn::DataObject>());
  EXPECT_FALSE(roi.getMaskImage());
  EXPECT_EQ(0u, roi.getBoundingBox().m_dimension);
  os.str("");
  out.take();
  roi.printSelf(os);
  EXPECT_EQ("Region of interest de type 'image mask'Box : adress = " +
                addressText(&roi.getBoundingBox()) + "\nDimension: 0\n",
            os.str());
  EXPECT_EQ("", out.str());
}

// Tests the class-name mappings: whole names, case-sensitive.
TEST(RoiObject, NameMappings) {
  using zelTools::isMapping;
  EXPECT_TRUE((isMapping<vorn::MaskRoi, std::string>("MaskRoi")));
  for (const char* other : {"BoxRoi", "maskroi", "MaskRoi ", ""}) {
    EXPECT_FALSE((isMapping<vorn::MaskRoi, std::string>(other))) << other;
  }
  EXPECT_TRUE((isMapping<vorn::BoxRoi, std::string>("BoxRoi")));
  EXPECT_FALSE((isMapping<vorn::BoxRoi, std::string>("MaskRoi")));
}

}  // namespace
