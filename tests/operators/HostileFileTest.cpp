// Files made to cost a reader far more memory or time than their size: those of
// fuzz/craft_hostile.py and those fuzzing found, all kept in the fuzz corpora. Each is read in a
// child process whose address space is limited to 256 MB, and must be refused with a message
// naming what is wrong, or read where the excess lies in something the readers skip.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <exception>
#include <string>

#include "vorn/ImageObject.hpp"
#include "vorn/operators/ImageFile.hpp"

namespace {

// AddressSanitizer reserves terabytes of shadow memory up front: under it, no limit.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VORN_UNDER_ADDRESS_SANITIZER
#endif
#if __has_feature(thread_sanitizer)
#define VORN_UNDER_THREAD_SANITIZER
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(VORN_UNDER_ADDRESS_SANITIZER)
constexpr bool kLimitAddressSpace = false;
#else
constexpr bool kLimitAddressSpace = true;
#endif
// ThreadSanitizer maps its own memory too, and a child forked beside the pool's threads runs
// under its rules: the readers' bounds are checked in the other builds.
#if defined(__SANITIZE_THREAD__) || defined(VORN_UNDER_THREAD_SANITIZER)
constexpr bool kUnderThreadSanitizer = true;
#else
constexpr bool kUnderThreadSanitizer = false;
#endif

// Reads `path` in a child process limited to 256 MB of address space, which sends back through
// a pipe "" when the file reads, else what refused it.
std::string outcomeInChild(const std::string& path) {
  int ends[2];
  if (::pipe(ends) != 0) return "cannot make a pipe";
  const pid_t child = ::fork();
  if (child == 0) {
    const rlimit limit = {rlim_t{256} << 20, rlim_t{256} << 20};
    if (kLimitAddressSpace && ::setrlimit(RLIMIT_AS, &limit) != 0) ::_exit(3);
    std::string outcome;
    try {
      vorn::ImageObject image;
      vorn::readImageFile(path, image);
    } catch (const std::exception& error) {
      outcome = error.what();
    }
    const ssize_t sent = ::write(ends[1], outcome.data(), outcome.size());
    ::_exit(sent == static_cast<ssize_t>(outcome.size()) ? 0 : 4);
  }
  ::close(ends[1]);
  std::string outcome;
  char buffer[512];
  for (ssize_t got; (got = ::read(ends[0], buffer, sizeof buffer)) > 0;) {
    outcome.append(buffer, static_cast<std::size_t>(got));
  }
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    return "the reading child died, wait status " + std::to_string(status);
  }
  return outcome;
}

TEST(HostileFile, IsRefusedNamingWhatIsWrongWithinASmallAddressSpace) {
  if (kUnderThreadSanitizer) GTEST_SKIP() << "not under ThreadSanitizer";
  const struct {
    const char* file;      // under fuzz/corpus/
    const char* expected;  // in the refusal; "" when the file reads
  } cases[] = {
      {"png_reader/hostile-text-claims-1769340953.png",
       "PNG chunk tEXt at byte 33 claims 1769340953 bytes, more than the 122 bytes left"},
      {"png_reader/hostile-chunk-after-idat-claims-1gib.png",
       "PNG chunk zTXt at byte 58 claims 1073741824 bytes, more than the 67 bytes left"},
      {"png_reader/hostile-ztxt-inflates-4mib.png", ""},
      {"nifti_reader/hostile-dims-claim-4tb.nii",
       "(1152780773560811521 voxels of 4 bytes from byte 352) claims 4611123094243246436 bytes, "
       "more than the 416 bytes of the file"},
      {"nifti_reader/hostile-vox-offset-1.5e9.nii",
       "from byte 1500000000) claims 1500000016 bytes, more than the 368 bytes of the file"},
      {"nifti_reader/hostile-extension-claims-2gb.nii", ""},
      {"nifti_gz_reader/hostile-dims-claim-4tb.nii.gz",
       "claims 4611123094243246436 bytes, more than the 55 bytes of the gzip file can expand to"},
      {"nifti_gz_reader/hostile-gzip-ends-early.nii.gz",
       "the file ends after 1700 of the 983010 bytes of voxels its header claims"},
      {"tiff_reader/hostile-tile-claims-62gb.tif",
       "TIFF tiles of 1951596560 x 16 pixels (62451089920 bytes) are empty or larger"},
      {"tiff_reader/hostile-tile-claims-3gb.tif", "TIFF tiles of 122 x 14155792 pixels"},
      {"dicom_reader/hostile-element-claims-4gb.dcm",
       "DICOM element (0009,1010) at byte 172 claims 4026531840 bytes, more than the 16 bytes "
       "left in the file"},
      {"dicom_reader/hostile-item-claims-2gb.dcm",
       "DICOM item (fffe,e000) at byte 184 claims 2147483648 bytes, more than the 8 bytes"},
      {"dicom_reader/hostile-rows-claim-8gb.dcm",
       "claims 8589672450 bytes, more than the 306 bytes"},
  };
  for (const auto& c : cases) {
    const std::string path = std::string(VORN_FUZZ_CORPUS_DIR) + "/" + c.file;
    SCOPED_TRACE(path);
    const std::string outcome = outcomeInChild(path);
    if (*c.expected == '\0') {
      EXPECT_EQ(outcome, "");
    } else {
      EXPECT_NE(outcome.find(path + ": "), std::string::npos) << outcome;
      EXPECT_NE(outcome.find(c.expected), std::string::npos) << outcome;
    }
  }
}

}  // namespace
