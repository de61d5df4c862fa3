// The demo's images: the built-in phantoms, and 8-bit views of any image for PNG files.
#pragma once

#include <string>

#include <boost/shared_ptr.hpp>

#include <vorn/ImageObject.hpp>

namespace demo {

using ImagePtr = boost::shared_ptr<vorn::ImageObject>;

// A 256 x 256 float slice: a skull ring, brain tissue, two dark ventricles and a bright spot,
// with Gaussian noise (the same every run).
ImagePtr makePhantom2D();
// A 96 x 112 x 96 float head: skin, skull, brain, two ventricles and a bright lesion, with noise.
ImagePtr makeHeadVolume();

// Pixel `k` of an image of any of the three types.
double valueAt(const vorn::ImageObject& image, unsigned long k);
// Writes `image` as an 8-bit PNG, its values stretched from their minimum to their maximum.
void savePng(const vorn::ImageObject& image, const std::string& path);
// The middle slice across each axis of a 3-D image, as PNGs "<stem>-axis0.png" and so on.
void saveMiddleSlices(const vorn::ImageObject& volume, const std::string& stem);

}  // namespace demo
