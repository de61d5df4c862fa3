#include "DemoImages.hpp"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include <vorn/operators/ImageFile.hpp>

namespace demo {
namespace {

// Normal noise from a fixed seed (Box-Muller on a 64-bit linear congruential generator).
class Noise {
 public:
  float next(float sigma) {
    const double u1 = (uniform() + 1.0) / 2.0, u2 = uniform();
    return static_cast<float>(sigma * std::sqrt(-2.0 * std::log(u1)) * std::cos(6.283185 * u2));
  }

 private:
  double uniform() {
    m_state = m_state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<double>(m_state >> 11) / 9007199254740992.0;
  }
  std::uint64_t m_state = 42;
};

struct Ellipsoid {
  double centre[3];
  double radius[3];
  float value;  // replaces what lies inside
  bool inside(double x, double y, double z) const {
    const double dx = (x - centre[0]) / radius[0], dy = (y - centre[1]) / radius[1];
    const double dz = (z - centre[2]) / radius[2];
    return dx * dx + dy * dy + dz * dz <= 1.0;
  }
};

ImagePtr render(const std::vector<unsigned long>& size, const std::vector<Ellipsoid>& shapes,
                float sigma) {
  vorn::Box box(static_cast<unsigned>(size.size()));
  for (unsigned axis = 0; axis < size.size(); ++axis) box.m_size[axis] = size[axis];
  ImagePtr image(new vorn::ImageObject);
  image->Allocate(vorn::PixelType::FLOAT, box);
  float* pixels = static_cast<float*>(image->getBuffer());
  Noise noise;
  const unsigned long depth = size.size() > 2 ? size[2] : 1;
  unsigned long k = 0;
  for (unsigned long z = 0; z < depth; ++z) {
    for (unsigned long y = 0; y < size[1]; ++y) {
      for (unsigned long x = 0; x < size[0]; ++x, ++k) {
        float value = 20.0f;
        for (const Ellipsoid& shape : shapes) {
          if (shape.inside(double(x), double(y), double(z))) value = shape.value;
        }
        pixels[k] = value + noise.next(sigma);
      }
    }
  }
  return image;
}

}  // namespace

double valueAt(const vorn::ImageObject& image, unsigned long k) {
  const void* buffer = image.getBuffer();
  switch (image.getPointType()) {
    case vorn::PixelType::UCHAR:
      return static_cast<const unsigned char*>(buffer)[k];
    case vorn::PixelType::SHORT:
      return static_cast<const short*>(buffer)[k];
    default:
      return static_cast<const float*>(buffer)[k];
  }
}

ImagePtr makePhantom2D() {
  return render({256, 256},
                {{{128, 128, 0}, {100, 120, 1}, 200},  // skull
                 {{128, 128, 0}, {90, 110, 1}, 110},   // brain
                 {{108, 118, 0}, {10, 30, 1}, 40},     // ventricles
                 {{148, 118, 0}, {10, 30, 1}, 40},
                 {{150, 185, 0}, {12, 12, 1}, 190}},  // a bright spot
                12.0f);
}

ImagePtr makeHeadVolume() {
  return render({96, 112, 96},
                {{{48, 56, 48}, {44, 52, 44}, 80},   // skin
                 {{48, 56, 48}, {41, 49, 41}, 200},  // skull
                 {{48, 56, 48}, {37, 45, 37}, 110},  // brain
                 {{40, 52, 48}, {5, 14, 8}, 40},     // ventricles
                 {{56, 52, 48}, {5, 14, 8}, 40},
                 {{60, 74, 56}, {7, 7, 7}, 190}},  // a lesion
                10.0f);
}

void savePng(const vorn::ImageObject& image, const std::string& path) {
  const unsigned long count = image.getPixelNumber();
  std::vector<double> values(count);
  for (unsigned long k = 0; k < count; ++k) values[k] = valueAt(image, k);
  const auto [low, high] = std::minmax_element(values.begin(), values.end());
  const double scale = *high > *low ? 255.0 / (*high - *low) : 0.0;
  vorn::ImageObject view;
  view.Allocate(vorn::PixelType::UCHAR, image.getBufferedRegion());
  auto* out = static_cast<unsigned char*>(view.getBuffer());
  for (unsigned long k = 0; k < count; ++k) {
    out[k] = static_cast<unsigned char>(std::lround((values[k] - *low) * scale));
  }
  vorn::writeImageFile(view, path);
}

void saveMiddleSlices(const vorn::ImageObject& volume, const std::string& stem) {
  const vorn::Box& box = volume.getBufferedRegion();
  const unsigned long size[3] = {box.m_size[0], box.m_size[1], box.m_size[2]};
  for (unsigned across = 0; across < 3; ++across) {
    const unsigned a = across == 0 ? 1 : 0, b = across == 2 ? 1 : 2;  // the slice's two axes
    vorn::Box sliceBox(2);
    sliceBox.m_size[0] = size[a];
    sliceBox.m_size[1] = size[b];
    vorn::ImageObject slice;
    slice.Allocate(vorn::PixelType::FLOAT, sliceBox);
    auto* out = static_cast<float*>(slice.getBuffer());
    unsigned long index[3];
    index[across] = size[across] / 2;
    for (unsigned long j = 0; j < size[b]; ++j) {
      for (unsigned long i = 0; i < size[a]; ++i) {
        index[a] = i;
        index[b] = size[b] - 1 - j;  // the slice's top row is the highest index
        const unsigned long k = (index[2] * size[1] + index[1]) * size[0] + index[0];
        out[j * size[a] + i] = static_cast<float>(valueAt(volume, k));
      }
    }
    savePng(slice, stem + "-axis" + std::to_string(across) + ".png");
  }
}

}  // namespace demo
