// Names no destination can take as they are: "..", "/", a NUL inside, 255
// UTF-16 units (more bytes than a Linux name may have), case-only twins and a
// "._x" beside the resource-fork sidecar of "x", live and deleted on one
// journaled HFSX volume. They go through the whole journey of the command
// line, and every file's bytes end up saved exactly once, to a case-sensitive
// destination and, where the machine can mount one, a case-insensitive one.
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "Crafted.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

std::string longName() {
  std::string name;
  for (int i = 0; i < 85; ++i) name += "e\xCC\x81";  // e and a combining acute: 170 units, 255 bytes
  return name + std::string(85, 'x');               // 255 units, 340 bytes
}

// The hostile names, each with a size of its own.
std::vector<mk::EntrySpec> hostileEntries(uint64_t sizeBase) {
  std::vector<mk::EntrySpec> out;
  const std::vector<std::string> names = {"..", "/", std::string("a\0b", 3), longName(), "A", "a", "._x", "x"};
  for (size_t i = 0; i < names.size(); ++i) {
    out.push_back(sizedFile(names[i], sizeBase + 100 * i));
    if (names[i] == "x") out.back().rsrcSize = sizeBase + 2000;
  }
  return out;
}

mk::DriveSpec namesDrive() {
  mk::VolumeSpec v;
  v.name = "Names";
  v.hfsx = true;  // "A" and "a" are two names here
  v.journal = true;
  mk::EntrySpec trash = folderOf("trash", hostileEntries(5000));
  trash.deleted = true;
  v.root = hostileEntries(1000);
  v.root.push_back(trash);
  return bareDrive(v);
}

// Every regular file below `root` with its bytes, and any name too long.
std::vector<std::vector<uint8_t>> savedFiles(const fs::path& root, std::vector<std::string>& tooLong) {
  std::vector<std::vector<uint8_t>> out;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    if (e.path().filename().string().size() > 255) tooLong.push_back(e.path().string());
    if (e.is_regular_file()) out.push_back(readFile(e.path()));
  }
  return out;
}

// Each file of the layout that is (or is not) deleted had its data fork
// saved exactly once, and the resource fork of "x" is in exactly one sidecar.
void expectEachSavedOnce(const mk::VolumeLayout& v, bool deleted, const fs::path& root) {
  std::vector<std::string> tooLong;
  const auto saved = savedFiles(root, tooLong);
  EXPECT_TRUE(tooLong.empty()) << tooLong.front();
  int files = 0;
  for (const auto& e : v.entries) {
    if (e.folder || e.deleted != deleted || !e.generatedData) continue;
    ++files;
    const auto data = mk::generatedBytes(e.dataSeed, e.dataSize);
    EXPECT_EQ(std::count(saved.begin(), saved.end(), data), 1) << e.path;
    if (e.rsrcSize == 0) continue;
    const auto rsrc = mk::generatedBytes(e.rsrcSeed, e.rsrcSize);
    const auto holds = [&](const std::vector<uint8_t>& f) {
      return f.size() > rsrc.size() && std::search(f.begin(), f.end(), rsrc.begin(), rsrc.end()) != f.end();
    };
    EXPECT_EQ(std::count_if(saved.begin(), saved.end(), holds), 1) << e.path << " resource fork";
  }
  EXPECT_EQ(files, 8);
}

TEST(CraftedNames, GoThroughEveryCommandAndAreSavedOnceEach) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  const BuiltDrive d(namesDrive());
  // The user's own "A" and "._x" already where the save puts them.
  const fs::path root = d.dir / "out" / "Root";
  fs::create_directories(root);
  writeFile(root / "A", std::vector<uint8_t>{'m', 'i', 'n', 'e'});
  writeFile(root / "._x", std::vector<uint8_t>{'m', 'i', 'n', 'e', '2'});
  JourneyCounts counts;
  boundedJourney(d,
                 {"tree {drive}", "tree --advanced {drive}", "deleted {drive}", "recover {drive} --out {out}",
                  "recover --advanced {drive} --out {out}", "deleted {drive} --out {out}/deleted"},
                 counts);
  EXPECT_EQ(counts.escapes, 0);
  EXPECT_EQ(counts.overwrites, 0);

  // Into empty folders: the live files from a scan, the deleted ones from
  // the journal.
  const CliRun live = runCli("recover " + shellQuoted(d.path) + " --out " + shellQuoted((d.dir / "live").string()));
  EXPECT_EQ(live.status, 0) << live.err;
  expectEachSavedOnce(d.volume(), false, d.dir / "live");
  const CliRun gone = runCli("deleted " + shellQuoted(d.path) + " --out " + shellQuoted((d.dir / "gone").string()));
  EXPECT_EQ(gone.status, 0) << gone.err;
  expectEachSavedOnce(d.volume(), true, d.dir / "gone");
}

// exFAT keeps case but ignores it: "a" meets "A".
TEST(CraftedNames, CaseOnlyTwinsBothReachACaseInsensitiveDestination) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  if (::geteuid() != 0 || !haveTool("mkfs.exfat") || !haveTool("mount.exfat-fuse") || !haveTool("losetup") ||
      !fs::exists("/dev/fuse"))
    GTEST_SKIP() << "a case-insensitive destination needs root, exfatprogs, exfat-fuse and a loop device";
  const BuiltDrive d(namesDrive());
  const fs::path fat = d.dir / "fat.img", mnt = d.dir / "mnt", copy = d.dir / "copy";
  fs::create_directory(mnt);
  ASSERT_EQ(runCommand("truncate -s 16M '" + fat.string() + "' && mkfs.exfat '" + fat.string() + "' >/dev/null 2>&1"), 0);
  // In a mount namespace of its own; the saved tree is copied out before
  // the file system goes away.
  const std::string script = fmt::format(
      "set -e; L=$(losetup -f --show '{0}') || exit 99\n"
      // The FUSE daemon may still hold the device for a moment after umount.
      "trap 'i=0; until losetup -d $L 2>/dev/null || [ $i -ge 100 ]; do sleep 0.1; i=$((i+1)); done' EXIT\n"
      "unshare -m sh -c \"mount.exfat-fuse -o noatime $L '{1}' >/dev/null 2>&1 || exit 99\n"
      "  '{2}' recover '{3}' --out '{1}/out' >/dev/null 2>&1; echo status=\\$? >&2\n"
      "  cp -r '{1}/out' '{4}'; umount '{1}'\"",
      fat.string(), mnt.string(), cliPath(), d.path, copy.string());
  writeFile(d.dir / "save.sh", std::vector<uint8_t>(script.begin(), script.end()));
  std::string out;
  const int status = runCommand("sh '" + (d.dir / "save.sh").string() + "' 2>&1", &out);
  if (status == 99) GTEST_SKIP() << "this machine cannot mount an exFAT image: " << out;
  ASSERT_EQ(status, 0) << out;
  EXPECT_NE(out.find("status=0"), std::string::npos) << out;
  expectEachSavedOnce(d.volume(), false, copy);
  // Both twins are there, under two names.
  EXPECT_TRUE(fs::exists(copy / "Root" / "A"));
  EXPECT_TRUE(fs::exists(copy / "Root" / "a (2)"));
}

}  // namespace
}  // namespace ambrel::test
