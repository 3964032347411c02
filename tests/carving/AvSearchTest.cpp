// Audio and video files within the search: planted on a drive of noise and
// in the free blocks of a built HFS+ volume, every file is found once, at
// its block, with the length its structure gives and its own bytes; the
// tail of an MP3 or MPEG stream is never carved again as a file of its own.
#include <gtest/gtest.h>

#include "AvFiles.h"
#include "CarveImage.h"
#include "ImageBuilder.h"

namespace ambrel::test {
namespace {

struct AvFile {
  std::string folder;  // "/Root/Audio/mp3"
  std::vector<uint8_t> bytes;
  uint64_t carvedSize = 0;  // what the structure gives (AVI and MIDI keep a margin past the file)
};

// One of each kind the tools here can make, and the shared samples.
std::vector<AvFile> avFiles() {
  std::vector<AvFile> out;
  auto add = [&](const std::string& folder, std::vector<uint8_t> bytes, uint64_t margin = 0) {
    if (bytes.empty()) return;
    const uint64_t size = bytes.size() + margin;
    out.push_back({folder, std::move(bytes), size});
  };
  const std::string tone = "-f lavfi -i sine=frequency=440:duration=0.5 ";
  const std::string video = "-f lavfi -i testsrc=duration=0.5:size=96x64:rate=10 -pix_fmt yuv420p ";
  add("/Root/Audio/wav", toolMade("sox", "sox -n -r 22050 -b 16 {out} synth 0.25 sine 440 vol 0.5", "wav"));
  add("/Root/Audio/wav", ffmpegMade(tone + "-c:a libmp3lame -b:a 64k -f wav", "wav"));  // MPEG audio inside
  add("/Root/Audio/aif", toolMade("sox", "sox -n -r 8000 -b 16 -t aiff {out} synth 0.2 sine 300", "aiff"));
  add("/Root/Audio/aif", sample("aiff/pluck-ulaw.aifc"));
  add("/Root/Audio/mid", sample("midi/fixture.mid"), 2);
  add("/Root/Audio/mp3", ffmpegMade(tone + "-c:a libmp3lame -b:a 128k", "mp3"));
  add("/Root/Audio/mp3", ffmpegMade(tone + "-c:a libmp3lame -q:a 4 -write_id3v1 1 -metadata title=T", "mp3"));
  add("/Root/Audio/mp3",
      toolMade("lame", "sox -n -r 44100 -t wav - synth 0.5 sine 440 vol 0.5 | lame --quiet --resample 22.05 -b 32 - {out}",
               "mp3"));
  // A stream with frames starting on the sector and block boundaries where
  // the search goes on after it.
  add("/Root/Audio/mp3", mp3FramesStartingAt({4096, 6144}, 3));
  add("/Root/Video/avi", ffmpegMade(video, "avi"), 2040);
  add("/Root/Video/mov", ffmpegMade(video, "mov"));
  add("/Root/Video/mp4", ffmpegMade(video, "mp4"));
  add("/Root/Video/m4a", ffmpegMade(tone + "-c:a aac", "m4a"));
  add("/Root/Video/3gp", ffmpegMade(video + "-vcodec h263 -s 176x144", "3gp"));
  add("/Root/Video/3g2", sample("3gpp/sample_3GPP2.3g2"));
  add("/Root/Video/mpg", sample("mpeg_ps/weird_aspect.small.mpg"));
  add("/Root/Video/mpg", ffmpegMade("-f lavfi -i testsrc=duration=1:size=96x64:rate=25 -f mpeg", "mpg"));
  // Packs of 1024 bytes: the stream's last block holds packs of its own.
  add("/Root/Video/mpg", mpegProgramStream(11, 1024, true, false));
  return out;
}

std::string folderOf(const std::string& path) { return path.substr(0, path.rfind('/')); }

// Each planted file is the one entry at its block, in its folder, holding
// its bytes; there is no other entry.
void expectAll(const std::vector<AvFile>& files, const std::vector<uint64_t>& blocks, const Volume& v,
               const std::filesystem::path& image) {
  const auto carved = carvedFiles(*v.dirRoot);
  std::string seen;
  for (const auto& f : carved) seen += f.path + "@" + std::to_string(f.startBlock) + " ";
  EXPECT_EQ(carved.size(), files.size()) << seen;
  for (size_t i = 0; i < files.size(); ++i) {
    SCOPED_TRACE(files[i].folder + " #" + std::to_string(i));
    int found = 0;
    for (const auto& f : carved) {
      if (f.startBlock != blocks[i]) continue;
      ++found;
      EXPECT_EQ(folderOf(f.path), files[i].folder);
      EXPECT_EQ(f.size, files[i].carvedSize);
      const auto bytes = carvedBytes(image, v.HPlusVolStart, v.blockSize, f);
      ASSERT_GE(bytes.size(), files[i].bytes.size());
      EXPECT_TRUE(std::equal(files[i].bytes.begin(), files[i].bytes.end(), bytes.begin()));
    }
    EXPECT_EQ(found, 1);
  }
}

TEST(AvSearch, DriveSearchFindsEveryPlantedFileOnce) {
  const auto files = avFiles();
  if (files.size() < 8) GTEST_SKIP() << "neither ffmpeg, sox nor the shared samples are here";
  // One file every 1 MiB, the first ones across the first batch boundaries.
  std::vector<Planted> planted;
  std::vector<uint64_t> sectors;
  uint64_t sector = SignatureSearch::kDriveBatchExamined - 3;
  for (size_t i = 0; i < files.size(); ++i) {
    ASSERT_LT(files[i].carvedSize, 1u << 20);
    planted.push_back({files[i].folder, sector, files[i].bytes});
    sectors.push_back(sector);
    sector = (i + 1) * 2048 + (i % 3) * 7;
  }
  TempDir dir;
  const auto image = dir / "drive.img";
  writeDrive(image, (files.size() + 1) << 20, planted, 21);
  const BuiltDatabase db = builtDatabase();
  DriveUnderSearch drive(image);
  SignatureSearch search(*drive.volume, db.all());
  const SearchStats stats = search.signatureSearchDisk();
  EXPECT_FALSE(stats.stopped);
  expectAll(files, sectors, *drive.volume, image);
  // The carved streams are kept as one run each, not a sector each.
  EXPECT_LE(search.state().mp3DoneArray.runCount(), 5u);
  EXPECT_LE(search.state().mpgDoneArray.runCount(), 3u);
}

TEST(AvSearch, VolumeSearchFindsEveryFileInFreeBlocksOnce) {
  const auto files = avFiles();
  if (files.size() < 8) GTEST_SKIP() << "neither ffmpeg, sox nor the shared samples are here";
  mkimage::DriveSpec d;
  d.table = mkimage::TableKind::GPT;
  mkimage::PartitionSpec p;
  mkimage::VolumeSpec vol;
  vol.name = "Media";
  vol.blockSize = 4096;
  for (const AvFile& f : files) {
    mkimage::PayloadSpec payload;
    payload.bytes = f.bytes;
    // Room for the margins AVI and MIDI are carved with.
    payload.bytes->resize(f.bytes.size() + 4096, 0);
    vol.freePayloads.push_back(payload);
  }
  p.volume = vol;
  d.partitions.push_back(p);
  TempDir dir;
  const auto image = dir / "drive.img";
  const mkimage::VolumeLayout layout = *mkimage::buildImage(d, image).partitions[0].volume;

  std::string error;
  QuietController controller{PlistArray{driveDictionaryForPath(image.string(), error)}};
  PlistDict dict{{"Volume Start", layout.startSector},
                 {"Volume Size In Sectors", layout.sizeSectors},
                 {"Volume Name", layout.name},
                 {"Volume Scan Type", 0},
                 {"Path", image.string()}};
  Volume volume(dict, &controller);
  ASSERT_TRUE(prepareVolumeForSignatureSearch(volume, error)) << error;
  volume.endPos = 100;
  const BuiltDatabase db = builtDatabase();
  SignatureSearch search(volume, db.all());
  search.signatureSearch();
  std::vector<uint64_t> blocks;
  for (const auto& payload : layout.payloads) blocks.push_back(payload.startBlock);
  expectAll(files, blocks, volume, image);
}

}  // namespace
}  // namespace ambrel::test
