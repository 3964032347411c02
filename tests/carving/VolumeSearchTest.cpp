// The volume search on volumes the image builder makes: real images placed
// in free blocks and in deleted files are found at their blocks; live files
// and known first blocks are not examined; the drive search sees them all.
#include <gtest/gtest.h>

#include "CarveImage.h"
#include "ImageBuilder.h"

namespace ambrel::test {
namespace {

using namespace mkimage;

struct BuiltVolume {
  TempDir dir;
  std::filesystem::path image;
  VolumeLayout layout;
  std::vector<std::vector<uint8_t>> payloads;
  std::vector<uint8_t> live, deleted;
};

// A GPT drive with one volume: a live JPEG, a deleted PNG and the payloads
// in free blocks; empty when ImageMagick is missing.
std::unique_ptr<BuiltVolume> buildVolume(uint32_t blockSize) {
  auto v = std::make_unique<BuiltVolume>();
  v->live = convertImage("-size 300x200 plasma:fractal", "jpg");
  v->deleted = convertImage("-size 150x100 gradient:blue-yellow", "png");
  v->payloads = {convertImage("-delay 5 -size 48x48 xc:red xc:white", "gif"),
                 convertImage("-size 90x90 plasma:", "bmp"),
                 convertImage("-size 120x80 plasma: -define tiff:rows-per-strip=4", "tif"),
                 convertImage("-size 640x480 plasma:fractal -quality 92", "jpg")};
  if (v->live.empty()) return nullptr;
  DriveSpec d;
  d.table = TableKind::GPT;
  PartitionSpec p;
  VolumeSpec vol;
  vol.name = "Photos";
  vol.blockSize = blockSize;
  EntrySpec live;
  live.name = "live.jpg";
  live.data = v->live;
  EntrySpec gone;
  gone.name = "gone.png";
  gone.data = v->deleted;
  gone.deleted = true;
  vol.root = {live, gone};
  for (const auto& bytes : v->payloads) {
    PayloadSpec payload;
    payload.bytes = bytes;
    vol.freePayloads.push_back(payload);
  }
  p.volume = vol;
  d.partitions.push_back(p);
  v->image = v->dir / "drive.img";
  v->layout = *buildImage(d, v->image).partitions[0].volume;
  return v;
}

std::unique_ptr<Volume> openForSearch(const BuiltVolume& b, QuietController& controller) {
  PlistDict dict{{"Volume Start", b.layout.startSector},
                 {"Volume Size In Sectors", b.layout.sizeSectors},
                 {"Volume Name", b.layout.name},
                 {"Volume Scan Type", 0},
                 {"Path", b.image.string()}};
  auto volume = std::make_unique<Volume>(dict, &controller);
  std::string error;
  EXPECT_TRUE(prepareVolumeForSignatureSearch(*volume, error)) << error;
  volume->endPos = 100;
  return volume;
}

void expectFound(const BuiltVolume& b, const Volume& v, uint32_t startBlock, const std::vector<uint8_t>& bytes,
                 const std::string& ext) {
  for (const auto& f : carvedFiles(*v.dirRoot)) {
    if (f.startBlock != startBlock) continue;
    EXPECT_EQ(f.size, bytes.size()) << ext;
    EXPECT_NE(f.path.find("/" + ext + "/"), std::string::npos) << f.path;
    EXPECT_EQ(carvedBytes(b.image, v.HPlusVolStart, v.blockSize, f), bytes) << ext;
    return;
  }
  ADD_FAILURE() << ext << " not found at block " << startBlock;
}

bool foundAt(const Volume& v, uint64_t block) {
  for (const auto& f : carvedFiles(*v.dirRoot))
    if (f.startBlock == block) return true;
  return false;
}

TEST(VolumeSearch, FreeBlocksAndDeletedFilesAreSearchedLiveFilesAndKnownFirstBlocksAreNot) {
  for (uint32_t blockSize : {4096u, 512u}) {
    SCOPED_TRACE(blockSize);
    auto b = buildVolume(blockSize);
    if (!b) GTEST_SKIP() << "ImageMagick is not installed";
    std::string error;
    QuietController controller{PlistArray{driveDictionaryForPath(b->image.string(), error)}};
    auto volume = openForSearch(*b, controller);
    EXPECT_EQ(volume->HPlusVolStart, b->layout.HPlusVolStart);
    EXPECT_EQ(volume->totalBlocks, b->layout.totalBlocks);
    const BuiltDatabase db = builtDatabase();
    SignatureSearch search(*volume, db.all());
    const SearchStats stats = search.signatureSearch();
    EXPECT_FALSE(stats.stopped);

    const char* exts[] = {"gif", "bmp", "tif", "jpg"};
    for (size_t i = 0; i < b->payloads.size(); ++i)
      expectFound(*b, *volume, b->layout.payloads[i].startBlock, b->payloads[i], exts[i]);
    const FileLayout* gone = b->layout.find("gone.png");
    ASSERT_TRUE(gone);
    expectFound(*b, *volume, gone->dataExtents[0].startBlock, b->deleted, "png");
    const FileLayout* live = b->layout.find("live.jpg");
    ASSERT_TRUE(live);
    EXPECT_FALSE(foundAt(*volume, live->dataExtents[0].startBlock));
    EXPECT_EQ(volume->fileCount, b->payloads.size() + 1);

    // The drive search looks at every sector: the live file too.
    DriveUnderSearch drive(b->image);
    SignatureSearch whole(*drive.volume, db.all());
    whole.signatureSearchDisk();
    const uint64_t liveSector = b->layout.blockToSector(live->dataExtents[0].startBlock);
    bool seen = false;
    for (const auto& f : carvedFiles(*drive.volume->dirRoot))
      if (f.startBlock == liveSector) seen = f.size == b->live.size();
    EXPECT_TRUE(seen) << "live JPEG at sector " << liveSector;
    if (blockSize != 4096) continue;

    // A first block the catalog already knows is not examined.
    auto again = openForSearch(*b, controller);
    const uint32_t known = b->layout.payloads[0].startBlock;
    again->btreeFirstFileBlock.insert(known, 0);
    SignatureSearch(*again, db.all()).signatureSearch();
    EXPECT_FALSE(foundAt(*again, known));
    EXPECT_TRUE(foundAt(*again, b->layout.payloads[1].startBlock));
    EXPECT_EQ(again->fileCount, b->payloads.size());
    // The carved tree: category and extension folders under the root, the
    // files numbered in each extension folder.
    const HDIR* images = again->dirRoot->firstChildNamed("Images");
    ASSERT_TRUE(images);
    EXPECT_EQ(pathNameOf(*images), "/Root");
    const HDIR* jpg = const_cast<HDIR*>(images)->firstChildNamed("jpg");
    ASSERT_TRUE(jpg);
    EXPECT_EQ(pathNameOf(*jpg), "/Root/Images");
    ASSERT_EQ(jpg->children().size(), 1u);
    EXPECT_EQ(jpg->children()[0]->fileName(), "File1.jpg");
    EXPECT_EQ(jpg->children()[0]->parentID, jpg->fileID);
    EXPECT_EQ(images->fileCount, again->fileCount);
  }
}

TEST(VolumeSearch, AVolumeWithoutAHeaderCannotBeSearched) {
  TempDir dir;
  writeFile(dir / "blank.img", std::vector<uint8_t>(1 << 20, 0));
  std::string error;
  QuietController controller{PlistArray{driveDictionaryForPath((dir / "blank.img").string(), error)}};
  PlistDict dict{{"Volume Start", 0}, {"Volume Size In Sectors", 2048}, {"Volume Name", "x"},
                 {"Volume Scan Type", 0}, {"Path", (dir / "blank.img").string()}};
  Volume volume(dict, &controller);
  EXPECT_FALSE(prepareVolumeForSignatureSearch(volume, error));
  EXPECT_NE(error.find("no HFS+ or HFSX volume header"), std::string::npos);
}

}  // namespace
}  // namespace ambrel::test
