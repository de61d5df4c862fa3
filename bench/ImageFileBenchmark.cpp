// Reading and writing image files: an 8-bit 1024 x 1024 PNG and a 128^3 float volume as .nii
// and .nii.gz. Bytes processed count the image's pixel bytes, not the file's.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <filesystem>
#include <initializer_list>
#include <string>

#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace {

// A smooth pattern with some fine detail, so that compression has realistic work to do.
template <class T>
void fillPattern(vorn::ImageObject& image, vorn::PixelType::Type type,
                 std::initializer_list<unsigned long> sizes) {
  vorn::Box box(static_cast<unsigned int>(sizes.size()));
  unsigned int axis = 0;
  for (unsigned long size : sizes) box.m_size[axis++] = size;
  image.Allocate(type, box);
  T* pixels = static_cast<T*>(image.getBuffer());
  for (unsigned long k = 0; k < image.getPixelNumber(); ++k) {
    const double wave = 80.0 * std::sin(static_cast<double>(k) * 0.001);
    pixels[k] = static_cast<T>(100.0 + wave + static_cast<double>((k * 2654435761u >> 13) & 7));
  }
}

std::string scratchFile(const std::string& name) {
  return (std::filesystem::temp_directory_path() /
          ("vorn-bench-" + std::to_string(::getpid()) + "-" + name))
      .string();
}

void makeImage(vorn::ImageObject& image, const std::string& extension) {
  if (extension == ".png") {
    fillPattern<unsigned char>(image, vorn::PixelType::UCHAR, {1024, 1024});
  } else {
    fillPattern<float>(image, vorn::PixelType::FLOAT, {128, 128, 128});
  }
}

void setBytes(benchmark::State& state, const vorn::ImageObject& image) {
  const unsigned long bytes = vorn::getSizeOf(image.getPointType()) * image.getPixelNumber();
  state.SetBytesProcessed(state.iterations() * static_cast<std::int64_t>(bytes));
}

void BM_WriteImageFile(benchmark::State& state, const std::string& extension) {
  vorn::ImageObject image;
  makeImage(image, extension);
  const std::string path = scratchFile("write" + extension);
  for (auto _ : state) vorn::writeImageFile(image, path);
  setBytes(state, image);
  std::filesystem::remove(path);
}

void BM_ReadImageFile(benchmark::State& state, const std::string& extension) {
  vorn::ImageObject image;
  makeImage(image, extension);
  const std::string path = scratchFile("read" + extension);
  vorn::writeImageFile(image, path);
  vorn::ImageObject read;
  for (auto _ : state) vorn::readImageFile(path, read);
  setBytes(state, read);
  std::filesystem::remove(path);
}

}  // namespace

BENCHMARK_CAPTURE(BM_WriteImageFile, png_uchar_1024x1024, std::string(".png"))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_ReadImageFile, png_uchar_1024x1024, std::string(".png"))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_WriteImageFile, nii_float_128cubed, std::string(".nii"))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_ReadImageFile, nii_float_128cubed, std::string(".nii"))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_WriteImageFile, niigz_float_128cubed, std::string(".nii.gz"))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK_CAPTURE(BM_ReadImageFile, niigz_float_128cubed, std::string(".nii.gz"))
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
