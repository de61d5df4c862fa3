// vorn demo: operators written as a client would write them, run on a built-in sample.
//
//   SyntheticSource -> [ segment: Threshold -> ApplyMask ] -> Statistics
//
// The source draws a 64 x 48 float image (a bright disc on a ramp). The "segment" pipeline
// thresholds it into a mask and keeps only the pixels inside the mask. Statistics counts and
// sums what is left. The demo then changes the threshold and shows that only the operators
// that depend on it run again, and finally hands the result to the host framework's image
// without copying a pixel, after a round trip through an example storage hook.
#include <cmath>
#include <iostream>

#include <vorn/vorn.hpp>
#include <zelData/Image.hpp>

#include "MemorySwapImageIO.hpp"

namespace {

using ImagePtr = boost::shared_ptr<vorn::ImageObject>;

ImagePtr imageAt(vorn::ProcessObject& op, unsigned output) {
  return boost::dynamic_pointer_cast<vorn::ImageObject>(op.getOutputPort(output)->getData());
}

ImagePtr inputImage(vorn::ProcessObject& op, unsigned input) {
  return boost::dynamic_pointer_cast<vorn::ImageObject>(op.getInputPort(input)->getData());
}

class SyntheticSource : public vorn::ProcessObject {
 public:
  SyntheticSource() {
    setName("SyntheticSource");
    addOutput("ImageObject");
  }
  void generateData() override {
    vorn::Box box(2);
    box.m_size[0] = 64;
    box.m_size[1] = 48;
    ImagePtr out = imageAt(*this, 0);
    out->Allocate(vorn::PixelType::FLOAT, box);
    float* pixels = static_cast<float*>(out->getBuffer());
    for (int y = 0; y < 48; ++y) {
      for (int x = 0; x < 64; ++x) {
        const bool disc = std::hypot(x - 40.0, y - 24.0) < 12.0;
        pixels[y * 64 + x] = static_cast<float>(x) + (disc ? 100.0f : 0.0f);
      }
    }
  }
};

// Mask of the pixels at or above the "level" parameter.
class Threshold : public vorn::ProcessObject {
 public:
  Threshold() {
    setName("Threshold");
    addInput("ImageObject");
    addOutput("ImageObject");
    addParameter(new vorn::Parameter("level", "100"));
  }
  void generateData() override {
    const float level = std::stof(getParameterValue("level"));
    ImagePtr in = inputImage(*this, 0);
    ImagePtr mask = imageAt(*this, 0);
    mask->Allocate(vorn::PixelType::UCHAR, in->getBufferedRegion());
    const float* pixels = static_cast<const float*>(in->getBuffer());
    unsigned char* inside = static_cast<unsigned char*>(mask->getBuffer());
    for (unsigned long k = 0; k < in->getPixelNumber(); ++k) inside[k] = pixels[k] >= level;
  }
};

// Copies input 0 and zeroes every pixel outside the mask on input 1.
class ApplyMask : public vorn::ProcessObject {
 public:
  ApplyMask() {
    setName("ApplyMask");
    addInput("ImageObject");
    addInput("ImageObject");
    addOutput("ImageObject");
  }
  void generateData() override {
    ImagePtr out = imageAt(*this, 0);
    out->import(inputImage(*this, 0).get(), this);
    vorn::restrictImageToRoi(out, inputImage(*this, 1));
  }
};

class Statistics : public vorn::ProcessObject {
 public:
  Statistics() {
    setName("Statistics");
    addInput("ImageObject");
    addOutput("ImageObject");
  }
  void generateData() override {
    ImagePtr in = inputImage(*this, 0);
    const float* pixels = static_cast<const float*>(in->getBuffer());
    kept = 0;
    sum = 0.0;
    for (unsigned long k = 0; k < in->getPixelNumber(); ++k) {
      kept += pixels[k] != 0.0f;
      sum += pixels[k];
    }
    imageAt(*this, 0)->import(in.get(), this);
  }
  unsigned long kept = 0;
  double sum = 0.0;
};

class Announcer : public vorn::IObserver {
 public:
  void onDataHasBeenGenerated(vorn::ProcessObject*) override {}
  void onStartComputingData(vorn::ProcessObject*) override {}
  void onInvalidated(vorn::ProcessObject* op) override {
    std::cout << "  (observer) " << op->getName() << " invalidated" << std::endl;
  }
  void onValidated(vorn::ProcessObject*) override {}
  void onParameterHasBeenChanged(vorn::ProcessObject*) override {}
};

}  // namespace

int main() {
  SyntheticSource source;
  Statistics statistics;
  {
    vorn::BasePipeline segment;
    segment.setName("segment");
    boost::shared_ptr<Threshold> threshold(new Threshold);
    boost::shared_ptr<ApplyMask> applyMask(new ApplyMask);
    segment.registerOperator(threshold);
    segment.registerOperator(applyMask);
    segment.addInput("ImageObject");
    segment.addOutput("ImageObject");
    threshold->setInputPort(0, segment.getInputPort(0));
    applyMask->setInputPort(0, segment.getInputPort(0));
    applyMask->setInputPort(1, threshold->getOutputPort(0));
    static_cast<vorn::PortProxy*>(segment.getOutputPort(0))->connectTo(applyMask->getOutputPort(0));
    segment.setInputPort(0, source.getOutputPort(0));
    statistics.setInputPort(0, segment.getOutputPort(0));

    Announcer announcer;
    statistics.attachObserver(&announcer);

    std::cout << "\n== First update: every operator runs ==" << std::endl;
    statistics.update();
    std::cout << "kept " << statistics.kept << " pixels, sum " << statistics.sum << std::endl;

    std::cout << "\n== Threshold level 140: only what depends on it runs again ==" << std::endl;
    threshold->setParameterValue("level", "140");
    statistics.update();
    std::cout << "kept " << statistics.kept << " pixels, sum " << statistics.sum << std::endl;

    std::cout << "\n== Second update with nothing changed: nothing runs ==" << std::endl;
    statistics.update();
    statistics.detachObserver(&announcer);

    std::cout << "\n== Tearing the pipeline down ==" << std::endl;
  }

  std::cout << "\n== Swapping the result out through a storage hook, and back ==" << std::endl;
  ImagePtr result = imageAt(statistics, 0);
  result->setImageIO(boost::shared_ptr<vorn::IImageIO>(new MemorySwapImageIO(result.get())));
  result->dump();
  result->print();
  const float* pixels = static_cast<const float*>(result->getBuffer());  // restores
  std::cout << "restored, pixel (40, 24) = " << pixels[24 * 64 + 40] << std::endl;

  std::cout << "\n== Handing the result to the host image, no pixel copied ==" << std::endl;
  boost::shared_ptr<data::Image> host(new data::Image);
  vorn::FromVornImage(result.get(), host);
  std::cout << "host image: " << int(host->getDimension()) << " axes, " << host->getCRefSize()[0]
            << " x " << host->getCRefSize()[1] << ", type " << host->getPixelType().string()
            << ", same buffer: " << (host->getBuffer() == result->getBuffer()) << std::endl;
  result->print();
  return 0;
}
