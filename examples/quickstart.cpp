// An operator of your own between two of the library's, updated on demand.
#include <iostream>

#include <vorn/operators/operators.hpp>
#include <vorn/vorn.hpp>

// 255 - pixel, for 8-bit images.
class Invert : public vorn::ProcessObject {
 public:
  Invert() {
    setName("invert");
    addInput("ImageObject");
    addOutput("ImageObject");
  }
  void generateData() override {
    auto in = boost::dynamic_pointer_cast<vorn::ImageObject>(getInputPort(0)->getData());
    auto out = boost::dynamic_pointer_cast<vorn::ImageObject>(getOutputPort(0)->getData());
    out->import(in.get(), this);  // same type, size and geometry as the input
    auto* pixels = static_cast<unsigned char*>(out->getBuffer());
    for (unsigned long k = 0; k < out->getPixelNumber(); ++k) pixels[k] = 255 - pixels[k];
  }
};

int main(int argc, char** argv) {
  if (argc != 3) return std::cerr << "usage: quickstart IN.png OUT.png\n", 2;
  vorn::ImageFileReader reader;
  Invert invert;
  vorn::ImageFileWriter writer;
  reader.setParameterValue("file", argv[1]);
  writer.setParameterValue("file", argv[2]);
  invert.setInputPort(0, reader.getOutputPort(0));
  writer.setInputPort(0, invert.getOutputPort(0));
  writer.update();  // reads, inverts and writes; a second update() would do nothing
}
