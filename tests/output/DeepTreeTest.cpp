// A chain of folders thousands deep with long names: what a damaged or
// hostile catalog can hold. Memory must grow with the entries, not with the
// square of the depth, and the whole chain must still be saved.
#include <gtest/gtest.h>

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define AMBREL_HAVE_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define AMBREL_HAVE_ASAN 1
#endif
#ifdef AMBREL_HAVE_ASAN
#include <cstddef>
// From the sanitizer runtime (its header comes only with clang).
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#endif

#include "output/OutputHelpers.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

TEST(DeepTree, EveryEntryKeptItsWholePathAndMemoryGrewWithTheSquareOfTheDepth) {
#ifndef AMBREL_HAVE_ASAN
  GTEST_SKIP() << "needs the sanitizer's allocation counter";
#else
  constexpr int kDepth = 3000;
  const std::string longName(200, 'n');
  mk::EntrySpec chain = fileSpec("bottom.txt", 777);
  for (int d = kDepth - 1; d >= 0; --d) chain = folderOf(longName + std::to_string(d), {chain});
  mk::VolumeSpec spec;
  spec.root = {chain};
  TempDir dir;
  const std::string image = (dir / "deep.img").string();
  {
    mk::DriveSpec drive;
    drive.table = mk::TableKind::None;
    drive.volume = std::move(spec);
    mk::buildImage(drive, image);
  }
  const size_t before = __sanitizer_get_current_allocated_bytes();
  ScanResult scanned = scan(image, 0, fs::file_size(image) / 512, "Normal Scan");
  ASSERT_NE(scanned.volume->dirRoot, nullptr);
  // A full path per entry held about 3000 x 1500 x 200 bytes (900 MB); the
  // entries themselves need a few.
  const size_t held = __sanitizer_get_current_allocated_bytes() - before;
  EXPECT_LT(held, size_t{64} << 20) << held;

  const HDIR* at = scanned.volume->dirRoot.get();
  for (int d = 0; d < kDepth; ++d) {
    ASSERT_EQ(at->children().size(), 1u) << d;
    at = at->children()[0].get();
  }
  ASSERT_EQ(at->children().size(), 1u);
  const HDIR* bottom = at->children()[0].get();
  EXPECT_EQ(bottom->fileName(), "bottom.txt");
  const std::string path = pathNameOf(*bottom);
  EXPECT_EQ(path.size(), std::string("/Root").size() + kDepth * (1 + longName.size()) + 10 * 1 + 90 * 2 + 900 * 3 +
                             2000 * 4);
#endif
}
