// A client of the installed package: it must compile warning-free against the installed
// headers alone and link and run against the installed libraries, host stand-in and operator
// library included.
#include <cmath>
#include <cstdio>
#include <memory>
#include <string>

#include <vorn/operators/operators.hpp>
#include <vorn/vorn.hpp>
#include <zelData/Image.hpp>

namespace {

bool hostImageShared() {
  boost::shared_ptr<data::Image> host(new data::Image);
  host->setDimension(1);
  host->setPixelType(zelTools::makeDynamicType<float>());
  host->setCRefSize(std::vector<int>{3});
  host->setCRefOrigin(std::vector<double>{0.0});
  host->setCRefSpacing(std::vector<double>{1.0});
  host->setBuffer(new char[3 * sizeof(float)]);

  vorn::ImageObject image;
  vorn::ToVornImage(host, &image);
  const bool shared = image.getBuffer() == host->getBuffer();
  const bool typesOk = image.getPointType() == vorn::returnPixelType<float>();
  return shared && typesOk && image.getPixelNumber() == 3;
}

// A constant 2 x 2 image smoothed by the operator library and written through its NIfTI writer.
bool operatorsRun(const std::string& path) {
  vorn::ImageObject image;
  vorn::Box box(2);
  box.m_size[0] = box.m_size[1] = 2;
  image.Allocate(vorn::PixelType::UCHAR, box);
  unsigned char* pixels = static_cast<unsigned char*>(image.getBuffer());
  for (int k = 0; k < 4; ++k) pixels[k] = 8;  // smoothing a constant keeps it
  vorn::writeImageFile(image, path);
  std::unique_ptr<vorn::TextPipeline> pipeline =
      vorn::TextPipeline::build("read file=" + path + " ! gaussian sigma=1 ! stats");
  pipeline->setReportStream(nullptr);
  pipeline->run();
  std::remove(path.c_str());
  auto* stats = dynamic_cast<vorn::StatisticsOperator*>(pipeline->find("stats"));
  return stats != nullptr && std::fabs(stats->getStatistics().mean - 8.0) < 1e-4;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string path = std::string(argc > 0 ? argv[0] : "consumer") + ".nii";
  return hostImageShared() && operatorsRun(path) ? 0 : 1;
}
