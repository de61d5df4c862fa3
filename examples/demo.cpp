// vorn demo: the operator library on built-in samples, or on an image file of your own.
//
//   vorn_demo [--out FOLDER] [IMAGE.png | IMAGE.nii | IMAGE.nii.gz]
//
// Each image goes through   source -> gaussian -> threshold -> mask (source, threshold) -> stats
// and every stage is written as a PNG (for a volume, the middle slice across each axis) into the
// output folder (default vorn-demo), volumes also as NIfTI. The volume's skull then gives the
// head's shape: its largest component, holes filled, and the distance map. The graph is drawn, the
// threshold changed to show that only what depends on it runs again, and the intermediate
// images of the volume swapped to disk to show the memory they free.
#include <malloc.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <vorn/operators/operators.hpp>
#include <vorn/vorn.hpp>

#include "DemoImages.hpp"

namespace {

using demo::ImagePtr;

ImagePtr outputOf(vorn::ProcessObject& op) {
  return boost::dynamic_pointer_cast<vorn::ImageObject>(op.getOutputPort(0)->getData());
}

// Hands out a prepared image.
class SampleSource : public vorn::ProcessObject {
 public:
  explicit SampleSource(ImagePtr image) : m_image(std::move(image)) {
    setName("source");
    addOutput("ImageObject");
  }
  void generateData() override { outputOf(*this)->import(m_image.get(), this); }

 private:
  ImagePtr m_image;
};

// An observer that listens to none of the five events; the demo's observers override one.
class Listener : public vorn::IObserver {
 public:
  void onDataHasBeenGenerated(vorn::ProcessObject*) override {}
  void onStartComputingData(vorn::ProcessObject*) override {}
  void onInvalidated(vorn::ProcessObject*) override {}
  void onValidated(vorn::ProcessObject*) override {}
  void onParameterHasBeenChanged(vorn::ProcessObject*) override {}
};

// Remembers which operators computed.
class RunRecorder : public Listener {
 public:
  void onStartComputingData(vorn::ProcessObject* op) override { ran.insert(op->getName()); }
  std::set<std::string> ran;
};

std::string number(double value) {
  std::ostringstream text;
  text << value;
  return text.str();
}

// source -> gaussian -> threshold -> mask (source, threshold) -> stats
struct Chain {
  Chain(ImagePtr image, double lower) : source(std::move(image)) {
    smooth.setName("gaussian");
    threshold.setName("threshold");
    mask.setName("mask");
    stats.setName("stats");
    smooth.setParameterValue("sigma", "1.5");
    threshold.setParameterValue("lower", number(lower));
    smooth.setInputPort(0, source.getOutputPort(0));
    threshold.setInputPort(0, smooth.getOutputPort(0));
    mask.setInputPort(0, source.getOutputPort(0));
    mask.setInputPort(1, threshold.getOutputPort(0));
    stats.setInputPort(0, mask.getOutputPort(0));
  }
  // What the demo writes out: every stage but the statistics.
  std::vector<vorn::ProcessObject*> stages() { return {&source, &smooth, &threshold, &mask}; }
  std::vector<vorn::ProcessObject*> operators() {
    return {&source, &smooth, &threshold, &mask, &stats};
  }

  SampleSource source;
  vorn::GaussianSmoothing smooth;
  vorn::BinaryThreshold threshold;
  vorn::MaskOperator mask;
  vorn::StatisticsOperator stats;
};

unsigned long insideCount(const vorn::ImageObject& mask) {
  unsigned long count = 0;
  for (unsigned long k = 0; k < mask.getPixelNumber(); ++k) count += demo::valueAt(mask, k) != 0;
  return count;
}

double meanOf(const vorn::ImageObject& image) {
  double sum = 0;
  for (unsigned long k = 0; k < image.getPixelNumber(); ++k) sum += demo::valueAt(image, k);
  return image.getPixelNumber() ? sum / double(image.getPixelNumber()) : 0.0;
}

// Runs the chain and writes every stage into `folder` as "<prefix>-<n>-<stage>".
void runAndSave(Chain& chain, const std::string& folder, const std::string& prefix) {
  chain.stats.update();
  int n = 1;
  for (vorn::ProcessObject* stage : chain.stages()) {
    const ImagePtr image = outputOf(*stage);
    const std::string stem =
        folder + "/" + prefix + "-" + std::to_string(n++) + "-" + stage->getName();
    if (image->getDimension() == 3) {
      demo::saveMiddleSlices(*image, stem);
      vorn::writeImageFile(*image, stem + ".nii.gz");
    } else {
      demo::savePng(*image, stem + ".png");
    }
  }
  std::cout << "\nmask: " << insideCount(*outputOf(chain.threshold)) << " pixels inside of "
            << outputOf(chain.threshold)->getPixelNumber() << "; stages written as " << folder
            << "/" << prefix << "-*" << std::endl;
}

void saveVolume(vorn::ProcessObject& stage, const std::string& stem) {
  demo::saveMiddleSlices(*outputOf(stage), stem);
  vorn::writeImageFile(*outputOf(stage), stem + ".nii.gz");
}

// The head's outline from its thresholded skull: the largest component of the threshold (the
// skull), its holes filled (the skull with all it holds), and how deep each pixel lies in it.
void shapeOfTheHead(Chain& head, const std::string& folder) {
  std::cout << "\n== The head's shape: largest component of the threshold, holes filled, "
               "distance to the outside =="
            << std::endl;
  vorn::LargestComponents largest;
  vorn::FillHoles fill;
  vorn::DistanceMap distance;
  largest.setName("largest");
  fill.setName("fill");
  distance.setName("distance");
  largest.setInputPort(0, head.threshold.getOutputPort(0));
  fill.setInputPort(0, largest.getOutputPort(0));
  distance.setInputPort(0, fill.getOutputPort(0));
  distance.update();
  int n = 5;
  for (vorn::ProcessObject* stage :
       {static_cast<vorn::ProcessObject*>(&largest), static_cast<vorn::ProcessObject*>(&fill),
        static_cast<vorn::ProcessObject*>(&distance)}) {
    saveVolume(*stage, folder + "/head-" + std::to_string(n++) + "-" + stage->getName());
  }
  const vorn::ImageObject& depth = *outputOf(distance);
  double deepest = 0;
  for (unsigned long k = 0; k < depth.getPixelNumber(); ++k) {
    deepest = std::max(deepest, demo::valueAt(depth, k));
  }
  std::cout << "\nlargest component: " << insideCount(*outputOf(largest))
            << " pixels; filled: " << insideCount(*outputOf(fill))
            << " pixels; deepest point: " << deepest << " from the outside (spacing units)"
            << std::endl;
}

void drawGraph(Chain& chain, const std::string& folder) {
  const std::string dot = folder + "/pipeline.dot";
  std::ofstream(dot) << [&] {
    std::ostringstream text;
    vorn::writeGraphviz(text, chain.stats);
    return text.str();
  }();
  std::cout << "\nThe pipeline's graph: " << dot;
  if (std::system("command -v dot > /dev/null 2>&1") == 0 &&
      std::system(("dot -Tpng " + dot + " -o " + folder + "/pipeline.png").c_str()) == 0) {
    std::cout << " and " << folder << "/pipeline.png";
  }
  std::cout << std::endl;
}

void changeThreshold(Chain& chain, double lower) {
  RunRecorder recorder;
  for (vorn::ProcessObject* op : chain.operators()) op->attachObserver(&recorder);
  std::cout << "\n== Threshold lowered to " << lower
            << ": the brain joins the mask, and only what depends on the threshold runs ==\n";
  chain.threshold.setParameterValue("lower", number(lower));
  chain.stats.update();
  std::cout << "\nran again:";
  for (const std::string& name : recorder.ran) std::cout << " " << name;
  std::cout << " (source and gaussian did not)\nmask: " << insideCount(*outputOf(chain.threshold))
            << " pixels inside" << std::endl;
  for (vorn::ProcessObject* op : chain.operators()) op->detachObserver(&recorder);
}

// A field of /proc/self/status ("VmRSS:", "VmHWM:"), in MiB.
double statusMiB(const std::string& field) {
  std::ifstream status("/proc/self/status");
  std::string key;
  double kib = 0;
  while (status >> key) {
    if (key == field) {
      status >> kib;
      break;
    }
  }
  return kib / 1024.0;
}

// Swaps `image` to disk once the operator it observes, the image's last reader, has computed.
class SwapAfterUse : public Listener {
 public:
  explicit SwapAfterUse(ImagePtr image) : m_image(std::move(image)) {}
  void onDataHasBeenGenerated(vorn::ProcessObject*) override { m_image->dump(); }

 private:
  ImagePtr m_image;
};

// How much the resident size grows at its peak while a new chain on `volume` computes, with or
// without its intermediate images swapped to disk as soon as they have been read.
double computationPeakMiB(const ImagePtr& volume, const std::string& folder, bool swap) {
  Chain chain(volume, 100);
  SwapAfterUse smoothed(outputOf(chain.smooth)), thresholded(outputOf(chain.threshold));
  if (swap) {
    for (const ImagePtr& image : {outputOf(chain.smooth), outputOf(chain.threshold)}) {
      image->setImageIO(
          boost::shared_ptr<vorn::IImageIO>(new vorn::FileSwapImageIO(image.get(), folder)));
    }
    chain.threshold.attachObserver(&smoothed);  // the Gaussian's output is read last here
    chain.mask.attachObserver(&thresholded);    // and the threshold's here
  }
  const double before = statusMiB("VmRSS:");
  std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak to the present size
  chain.stats.update();
  const double peak = statusMiB("VmHWM:") - before;
  chain.threshold.detachObserver(&smoothed);
  chain.mask.detachObserver(&thresholded);
  return peak;
}

void swapIntermediates(const std::string& folder) {
  std::cout << "\n== Swapping intermediate images to disk (FileSwapImageIO) ==" << std::endl;
  const ImagePtr volume = demo::makeHeadVolume();
  const double inMemory = computationPeakMiB(volume, folder, false);
  const double swapped = computationPeakMiB(volume, folder, true);
  std::cout << "\nmemory the volume's pipeline takes at its peak: " << inMemory
            << " MiB with every image in memory, " << swapped
            << " MiB with the gaussian and threshold images swapped to disk once read" << std::endl;
}

}  // namespace

int main(int argc, char** argv) {
  // Pixel buffers go back to the system as soon as they are freed (glibc would otherwise raise
  // its threshold for that after the first large free), so that resident sizes show them.
  mallopt(M_MMAP_THRESHOLD, 128 * 1024);
  std::string folder = "vorn-demo", input;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--out" && i + 1 < argc) {
      folder = argv[++i];
    } else if (arg.empty() || arg[0] == '-') {
      std::cerr << "usage: vorn_demo [--out FOLDER] [IMAGE.png | IMAGE.nii | IMAGE.nii.gz]\n";
      return 2;
    } else {
      input = arg;
    }
  }
  try {
    std::filesystem::create_directories(folder);
    if (!input.empty()) {
      const ImagePtr image(new vorn::ImageObject);
      vorn::readImageFile(input, *image);
      std::cout << "== " << input << ", threshold at its mean ==" << std::endl;
      Chain chain(image, meanOf(*image));
      runAndSave(chain, folder, "yours");
      return 0;
    }
    std::cout << "== 2-D phantom (256 x 256, noisy): smooth, keep what is above 120 (the skull "
                 "and a bright spot), mask =="
              << std::endl;
    Chain slice(demo::makePhantom2D(), 120);
    runAndSave(slice, folder, "phantom");

    std::cout << "\n== 3-D head (96 x 112 x 96): the same pipeline ==" << std::endl;
    Chain head(demo::makeHeadVolume(), 120);
    runAndSave(head, folder, "head");
    shapeOfTheHead(head, folder);
    drawGraph(head, folder);
    changeThreshold(head, 100);
    swapIntermediates(folder);
    std::cout << "\nEverything is in " << folder << "/" << std::endl;
  } catch (const std::exception& error) {
    std::cerr << "vorn_demo: " << error.what() << std::endl;
    return 1;
  }
  return 0;
}
