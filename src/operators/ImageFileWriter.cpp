#include "vorn/operators/ImageFileWriter.hpp"

#include <cstdio>
#include <utility>

#include "ImageFileCodecs.hpp"
#include "OperatorSupport.hpp"
#include "vorn/Parameter.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace vorn {

ImageFileWriter::ImageFileWriter() {
  setName("ImageFileWriter");
  addInput("ImageObject");
  addParameter(new Parameter("file", ""));
}

ImageFileWriter::~ImageFileWriter() { discard(); }

void ImageFileWriter::generateData() {
  const std::string file = getParameterValue("file");
  if (file.empty()) detail::throwBadParameter(*this, "file", file, "no file name given");
  const detail::ImagePtr image = detail::inputImage(*this, 0);
  discard();
  if (!m_deferred) {
    writeImageFile(*image, file);
    return;
  }
  m_pendingFile = detail::writeTemporaryImageFile(*image, file);
  m_pendingTarget = file;
}

void ImageFileWriter::setDeferredCommit(bool deferred) { m_deferred = deferred; }

bool ImageFileWriter::getDeferredCommit() const { return m_deferred; }

void ImageFileWriter::commit() {
  if (!hasPendingFile()) return;
  const std::string temporary = std::exchange(m_pendingFile, std::string());
  detail::commitTemporaryImageFile(temporary, m_pendingTarget);
}

void ImageFileWriter::discard() {
  if (!hasPendingFile()) return;
  std::remove(m_pendingFile.c_str());
  m_pendingFile.clear();
}

bool ImageFileWriter::hasPendingFile() const { return !m_pendingFile.empty(); }

}  // namespace vorn
