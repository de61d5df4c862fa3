#include "vorn/DataObjectFactory.hpp"

#include <gtest/gtest.h>

#include <memory>

#include "CoutCapture.hpp"
#include "vorn/ImageObject.hpp"

namespace {

using vorn::DataObjectFactory;

// Tests that only the exact name "ImageObject" makes an image, and what other names write.
TEST(DataObjectFactory, KnowsOnlyImageObject) {
  CoutCapture out;
  std::unique_ptr<vorn::DataObject> image(DataObjectFactory::createInstance("ImageObject"));
  ASSERT_NE(nullptr, dynamic_cast<vorn::ImageObject*>(image.get()));
  EXPECT_EQ("ImageObject", image->m_dataObjectName);
  EXPECT_TRUE(DataObjectFactory::isValidDataObectType("ImageObject"));
  EXPECT_EQ("", out.take());

  EXPECT_EQ(nullptr, DataObjectFactory::createInstance("imageobject"));
  EXPECT_EQ(nullptr, DataObjectFactory::createInstance(""));
  EXPECT_EQ(
      "DataObjectFactory::createInstance Unkown DataObjectType\n"
      "DataObjectFactory::createInstance Unkown DataObjectType\n",
      out.take());
  EXPECT_FALSE(DataObjectFactory::isValidDataObectType("Image"));
  EXPECT_EQ("DataObjectFactory::isValidDataObectType Unkown DataObjectType\n", out.take());
}

}  // namespace
