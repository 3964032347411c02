// Every way the command line reads a drive, each run over a drive with a bad
// sector, a drive that ends early and a drive that disappears, right where
// that reader looks: whatever could not be read is said, a lost drive is
// said as lost, and nothing crashes or hangs.
#include <fmt/format.h>

#include <filesystem>

#include "Damaged.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

constexpr int kExitReadErrors = 3;
constexpr int kExitDriveGone = 4;

std::vector<uint8_t> jpegBytes() {
  std::vector<uint8_t> b = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0,
                            0xFF, 0xC0, 0x00, 0x11, 0x08, 0x00, 0x20, 0x00, 0x20, 0x03, 0x01, 0x22, 0x00, 0x02,
                            0x11, 0x01, 0x03, 0x11, 0x01, 0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00, 0x02, 0x11,
                            0x03, 0x11, 0x00, 0x3F, 0x00};
  for (int i = 0; i < 20000; ++i) b.push_back(static_cast<uint8_t>(0x20 + i % 90));
  b.insert(b.end(), {0xFF, 0xD9});
  return b;
}

// A GPT drive with one journaled volume: live files over several catalog
// leaves, a deleted file the journal remembers, a picture in free space.
struct Worn {
  BuiltDrive drive;
  Worn()
      : drive([] {
          mk::VolumeSpec v;
          v.name = "Worn";
          v.journal = true;
          std::vector<mk::EntrySpec> files;
          for (int i = 0; i < 120; ++i) files.push_back(sizedFile(fmt::format("file{:03}.txt", i), 3000 + i));
          mk::EntrySpec gone = sizedFile("gone.txt", 9000);
          gone.deleted = true;
          v.root = {folderOf("Docs", std::move(files)), gone};
          mk::PayloadSpec picture;
          picture.bytes = jpegBytes();
          v.freePayloads.push_back(picture);
          mk::DriveSpec d;
          d.table = mk::TableKind::GPT;
          mk::PartitionSpec p;
          p.volume = v;
          d.partitions.push_back(p);
          return d;
        }()) {}

  const mk::VolumeLayout& volume() const { return drive.volume(); }
  uint64_t start() const { return drive.layout.partitions.at(0).startSector; }
  uint64_t middleLeaf() const {
    const auto leaves = leavesOf(volume().catalog);
    return leaves.at(leaves.size() / 2)->sector;
  }
  uint64_t fileData() const { return volume().blockToSector(volume().find("Docs/file060.txt")->dataExtents.at(0).startBlock); }
  uint64_t journalCopy() const {
    for (const auto& c : volume().nodeCopies)
      if (c.inJournal && c.old) return c.sector;
    return 0;
  }
  uint64_t picture() const { return volume().payloads.at(0).sector; }
};

}  // namespace

class EveryReadPath : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { worn_ = new Worn; }
  static void TearDownTestSuite() {
    delete worn_;
    worn_ = nullptr;
  }
  static Worn* worn_;

  CliRun run(const std::string& command, const std::string& faults, const fs::path& out) const {
    std::string args = command;
    for (size_t at; (at = args.find("{drive}")) != std::string::npos;) args.replace(at, 7, shellQuoted(worn_->drive.path));
    for (size_t at; (at = args.find("{out}")) != std::string::npos;) args.replace(at, 5, shellQuoted(out.string()));
    return runCli(args, faults);
  }
};
Worn* EveryReadPath::worn_ = nullptr;

TEST_F(EveryReadPath, TellsWhatABadSectorAShortDriveAndALostDriveCost) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  const Worn& w = *worn_;
  ASSERT_NE(w.journalCopy(), 0u) << "the journal must remember the deleted file";
  struct Path {
    const char* command;
    uint64_t sector;
  };
  const std::vector<Path> paths = {
      {"partitions {drive}", 1},
      {"find-volumes --quick {drive}", w.start() + 2},
      {"find-volumes {drive}", w.start() + 2},
      {"tree {drive}", w.middleLeaf()},
      {"tree --advanced {drive}", w.middleLeaf()},
      {"deleted {drive}", w.journalCopy()},
      {"carve --types jpg {drive}", w.picture()},
      {"carve --whole-drive --types jpg {drive}", w.picture()},
      {"recover {drive} --out {out}", w.fileData()},
      {"tree {drive} --save-scan-info {out}.asi", 0},
  };
  const std::vector<uint8_t> before = readFile(w.drive.path);
  const CliRun healthy = run("tree {drive}", "", w.drive.dir / "healthy");
  ASSERT_EQ(healthy.status, 0) << healthy.err;

  for (const Path& p : paths) {
    for (const char* kind : {"eio", "short", "vanish"}) {
      SCOPED_TRACE(fmt::format("{} with {}:{}", p.command, kind, p.sector));
      static int n = 0;
      const fs::path out = w.drive.dir / fmt::format("out{}", ++n);
      const CliRun r = run(p.command, fmt::format("{}:{}", kind, p.sector), out);
      // Never a crash, a sanitizer report or a hang.
      EXPECT_TRUE(r.status >= 0 && r.status <= 4) << r.status << "\n" << r.err;
      EXPECT_EQ(r.err.find("Sanitizer"), std::string::npos) << r.err;
      if (std::string(kind) == "vanish") {
        EXPECT_EQ(r.status, kExitDriveGone) << r.err;
        EXPECT_NE(r.err.find("The Drive or Volume being read is no longer available."), std::string::npos) << r.err;
        continue;
      }
      // The sector was not read: that is said, and the exit status says it.
      EXPECT_NE(r.status, 0) << r.out << r.err;
      const bool told = r.err.find("could not be read") != std::string::npos ||
                        r.err.find("could not read") != std::string::npos;
      EXPECT_TRUE(told) << r.err;
      if (std::string(kind) == "eio") {
        EXPECT_EQ(r.status, kExitReadErrors) << r.err;
      }
    }
  }
  // Whatever failed, the drive itself was never written.
  EXPECT_TRUE(readFile(w.drive.path) == before);
}

}  // namespace ambrel::test
