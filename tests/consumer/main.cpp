// A client of the installed package: it must compile warning-free against the installed
// headers alone and link and run against the installed libraries, host stand-in included.
#include <vorn/vorn.hpp>
#include <zelData/Image.hpp>

int main() {
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
  return shared && typesOk && image.getPixelNumber() == 3 ? 0 : 1;
}
