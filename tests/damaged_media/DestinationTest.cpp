// Destinations that fail: full, read-only, not ours to write. Saving and
// writing a scan info file must say why, and leave nothing behind that could
// pass for a good file.
#include <fmt/format.h>
#include <sys/stat.h>

#include <cstdio>
#include <filesystem>
#include <set>

#include "Damaged.h"

namespace ambrel::test {
namespace {

namespace fs = std::filesystem;

std::set<std::string> namesUnder(const fs::path& root) {
  std::set<std::string> out;
  std::error_code ec;
  for (auto it = fs::recursive_directory_iterator(root, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    out.insert(fs::relative(it->path(), root).string());
  return out;
}

struct Destination {
  BuiltDrive drive;
  fs::path mnt = drive.dir / "mnt";
  explicit Destination(const mk::DriveSpec& spec = bareDrive(generatedVolume(400, 12))) : drive(spec) {
    fs::create_directory(mnt);
  }

  // A shell script run with a private tmpfs (mounted with `options`) at mnt,
  // $CLI naming the command line; its output and status. False when this
  // machine allows no private mount.
  bool runOnTmpfs(const std::string& options, const std::string& script, int& status, std::string& out) const {
    const fs::path file = drive.dir / "script.sh";
    const std::string text = "mount -t tmpfs -o " + options + " tmpfs '" + mnt.string() + "' || exit 99\nCLI='" +
                             cliPath() + "'\n" + script + "\n";
    writeFile(file.string(), std::vector<uint8_t>(text.begin(), text.end()));
    status = runCommand("unshare -rm sh '" + file.string() + "' 2>&1", &out);
    return status != 99;
  }
  std::string drivePath() const { return shellQuoted(drive.path); }
};

TEST(ScanInfoDestination, FullIsToldAndLeavesNoFileBehind) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  Destination d;
  // Room for the listing's first pages only: the write fails part-way.
  const std::string asi = (d.mnt / "scan.asi").string();
  int status = 0;
  std::string out;
  if (!d.runOnTmpfs("size=16k",
                    "\"$CLI\" tree " + d.drivePath() + " --save-scan-info " + shellQuoted(asi) +
                        " 2>&1 >/dev/null; echo status=$?; echo files:; ls -A '" + d.mnt.string() + "'",
                    status, out))
    GTEST_SKIP() << "no private tmpfs mount here: " << out;
  EXPECT_NE(out.find("status=1\n"), std::string::npos) << out;
  EXPECT_NE(out.find("The scan info file \"" + asi + "\" could not be written: No space left on device."),
            std::string::npos)
      << out;
  // Nothing at the path, and no temporary file beside it.
  EXPECT_EQ(out.substr(out.rfind("files:")), "files:\n") << out;

  // The same scan with room for it: the file is there and whole.
  ASSERT_TRUE(d.runOnTmpfs("size=4m",
                           "\"$CLI\" tree " + d.drivePath() + " --save-scan-info " + shellQuoted(asi) +
                               " >/dev/null 2>&1 && \"$CLI\" scaninfo " + shellQuoted(asi),
                           status, out));
  EXPECT_EQ(status, 0) << out;
  EXPECT_NE(out.find("400"), std::string::npos) << out;
}

// Eight files of 64 KiB in one folder.
mk::DriveSpec eightFiles() {
  mk::VolumeSpec v;
  v.name = "Eight";
  std::vector<mk::EntrySpec> files;
  for (int i = 0; i < 8; ++i) files.push_back(sizedFile("f" + std::to_string(i), 64 * 1024));
  v.root = {folderOf("Docs", std::move(files))};
  return bareDrive(v);
}

// The destination has room for the save when it is checked, and fills up
// once the save has begun: the recovery report, a FIFO, holds the save back
// until something else has taken all but 160 KiB of a 1 MiB file system.
TEST(SaveDestination, FillingUpPartWayKeepsWhatWasSavedAndNamesWhatWasNot) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  Destination d(eightFiles());
  const fs::path fifo = d.drive.dir / "report.xml", out = d.mnt / "out";
  ASSERT_EQ(runCommand("mkfifo '" + fifo.string() + "'"), 0);
  int status = 0;
  std::string text;
  const std::string script =
      "\"$CLI\" recover " + d.drivePath() + " --out '" + out.string() + "' --report '" + fifo.string() +
      "' >'" + (d.drive.dir / "stdout").string() + "' 2>&1 &\n"
      "i=0; while [ ! -d '" + out.string() + "' ] && [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done\n"
      "head -c $((1024 * 1024 - 160 * 1024)) /dev/zero >'" + (d.mnt / "filler").string() + "'\n"
      "cat '" + fifo.string() + "' >/dev/null\n"
      "wait $!; echo status=$?; cat '" + (d.drive.dir / "stdout").string() + "'; cp -r '" + out.string() + "' '" +
      (d.drive.dir / "saved").string() + "'";
  if (!d.runOnTmpfs("size=1m", script, status, text)) GTEST_SKIP() << "no private tmpfs mount here: " << text;
  // Saving failed, and the message says why.
  EXPECT_NE(text.find("status=1\n"), std::string::npos) << text;
  EXPECT_NE(text.find("No space left on device"), std::string::npos) << text;

  // Each file is whole under its own name, or not there at all (nor under
  // a name that could pass for it), and then named in the message.
  const fs::path docs = d.drive.dir / "saved" / "Root" / "Docs";
  int whole = 0, named = 0;
  for (int i = 0; i < 8; ++i) {
    const std::string name = "f" + std::to_string(i);
    const auto* e = d.drive.volume().find("Docs/" + name);
    ASSERT_NE(e, nullptr);
    if (fs::exists(docs / name)) {
      EXPECT_TRUE(readFile(docs / name) == mk::generatedBytes(e->dataSeed, e->dataSize)) << name << " is cut";
      ++whole;
    } else {
      named += text.find("/Root/Docs/" + name) != std::string::npos;
    }
  }
  for (const auto& f : fs::directory_iterator(docs))
    EXPECT_EQ(f.path().filename().string().size(), 2u) << f.path() << " left behind";
  // The room left held two files; the first that did not fit and every
  // later one are named and counted.
  EXPECT_EQ(whole, 2) << text;
  EXPECT_EQ(named, 8 - whole) << text;
  EXPECT_NE(text.find(fmt::format("Saved {}: {} files", out.string(), whole)), std::string::npos) << text;
  const auto failures = text.find("Failures: ");
  ASSERT_NE(failures, std::string::npos) << text;
  int creates = -1, writes = -1;
  ASSERT_EQ(std::sscanf(text.c_str() + failures, "Failures: %d creates, %d writes", &creates, &writes), 2) << text;
  EXPECT_EQ(creates + writes, 8 - whole) << text;
}

TEST(ScanInfoDestination, ReadOnlyIsToldBeforeTheScan) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  Destination d;
  const std::string asi = (d.mnt / "scan.asi").string();
  int status = 0;
  std::string out;
  if (!d.runOnTmpfs("ro,size=1m",
                    "\"$CLI\" tree " + d.drivePath() + " --save-scan-info " + shellQuoted(asi) +
                        " 2>&1; echo status=$?; echo files:; ls -A '" + d.mnt.string() + "'",
                    status, out))
    GTEST_SKIP() << "no private tmpfs mount here: " << out;
  EXPECT_NE(out.find("status=2\n"), std::string::npos) << out;
  EXPECT_NE(out.find("The scan info file \"" + asi + "\" could not be written: Read-only file system."),
            std::string::npos)
      << out;
  // Refused before the scan: no listing was printed.
  EXPECT_EQ(out.find("/Root"), std::string::npos) << out;
  EXPECT_EQ(out.substr(out.rfind("files:")), "files:\n") << out;
}

TEST(SaveDestination, ReadOnlyIsToldAndNothingIsWritten) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  Destination d;
  int status = 0;
  std::string out;
  // The folder exists on a read-only file system, and also when it must be made.
  for (const char* where : {"", "/out"}) {
    SCOPED_TRACE(where);
    if (!d.runOnTmpfs("ro,size=64m",
                      "\"$CLI\" recover " + d.drivePath() + " --out '" + d.mnt.string() + where +
                          "' 2>&1; echo status=$?; echo files:; find '" + d.mnt.string() + "' -mindepth 1",
                      status, out))
      GTEST_SKIP() << "no private tmpfs mount here: " << out;
    EXPECT_EQ(out.find("status=0\n"), std::string::npos) << out;
    EXPECT_NE(out.find("! Can not save: The volume chosen to save data to, is not writable."), std::string::npos)
        << out;
    EXPECT_EQ(out.substr(out.rfind("files:")), "files:\n") << out;
  }
}

// A folder this user may not write to (the command runs as nobody).
TEST(SaveDestination, NotPermittedIsToldForTheSaveAndTheScanInfoFile) {
  if (cliPath().empty()) GTEST_SKIP() << "AMBREL_CLI not set";
  if (::geteuid() != 0) GTEST_SKIP() << "needs root to run the command as another user";
  Destination d;
  fs::permissions(d.drive.dir.path(), fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                                          fs::perms::others_read | fs::perms::others_exec);
  fs::permissions(d.drive.path, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read |
                                    fs::perms::others_read);
  fs::permissions(d.mnt, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                             fs::perms::others_read | fs::perms::others_exec);
  const std::string asNobody = "setpriv --reuid=65534 --regid=65534 --clear-groups env HOME=/nonexistent '" +
                               cliPath() + "' ";
  std::string out;
  int status = runCommand(asNobody + "recover " + d.drivePath() + " --out '" + d.mnt.string() + "/out' 2>&1", &out);
  if (out.find("cannot open") != std::string::npos) GTEST_SKIP() << "nobody cannot read the image here: " << out;
  EXPECT_EQ(status, 2) << out;
  EXPECT_NE(out.find("! Can not save: The volume chosen to save data to, is not writable."), std::string::npos) << out;
  status = runCommand(asNobody + "tree " + d.drivePath() + " --save-scan-info '" + d.mnt.string() +
                          "/s.asi' 2>&1 >/dev/null",
                      &out);
  EXPECT_EQ(status, 2) << out;
  EXPECT_NE(out.find("Permission denied"), std::string::npos) << out;
  EXPECT_TRUE(namesUnder(d.mnt).empty());
}

}  // namespace
}  // namespace ambrel::test
