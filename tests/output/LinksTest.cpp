// Hard links, folder links and symbolic links of built volumes: scanned,
// listed through their targets and saved, checked against the builder's
// layout and The Sleuth Kit.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "output/OutputHelpers.h"
#include "support/CliRun.h"
#include "scaninfo/ScanInfoFile.h"
#include "scaninfo/VolumeScanInfo.h"
#include "tree/Links.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

mk::EntrySpec textFile(const std::string& name, const std::string& text) {
  mk::EntrySpec e;
  e.name = name;
  e.data = std::vector<uint8_t>(text.begin(), text.end());
  return e;
}

mk::EntrySpec linkSpec(const std::string& name, const std::string& hard, const std::string& folder) {
  mk::EntrySpec e;
  e.name = name;
  e.hardLinkTo = hard;
  e.folderLinkTo = folder;
  return e;
}

mk::EntrySpec symlinkSpec(const std::string& name, const std::string& target) {
  mk::EntrySpec e;
  e.name = name;
  e.symlinkTo = target;
  return e;
}

// Two snapshots of a backup drive: the second shares the first's unchanged
// folder through a folder link and its unchanged file through a hard link.
mk::VolumeSpec backupVolume() {
  mk::VolumeSpec v;
  v.name = "Backups";
  v.root = {folderOf("2024-01-01", {folderOf("Photos", {fileSpec("a.jpg", 30000, 0, 3), fileSpec("b.jpg", 9000)}),
                                      textFile("notes.txt", "first notes\n")}),
            folderOf("2024-02-01", {linkSpec("Photos", "", "2024-01-01/Photos"),
                                      linkSpec("notes.txt", "2024-01-01/notes.txt", "")}),
            symlinkSpec("latest", "2024-02-01"), symlinkSpec("outside", "/etc/passwd")};
  return v;
}

std::string readText(const fs::path& p) {
  const auto bytes = readFile(p);
  return std::string(bytes.begin(), bytes.end());
}

// Every path below `root` with what it is: "d", "l -> target", or a hash of the file's bytes.
std::map<std::string, std::string> savedShape(const fs::path& root) {
  std::map<std::string, std::string> out;
  for (const auto& e : fs::recursive_directory_iterator(root)) {
    const std::string rel = e.path().lexically_relative(root).string();
    if (e.is_symlink()) out[rel] = "l -> " + fs::read_symlink(e.path()).string();
    else if (e.is_directory()) out[rel] = "d";
    else out[rel] = std::to_string(std::hash<std::string>{}(readText(e.path())));
  }
  return out;
}

SaveResult saveAll(Volume& v, const fs::path& to) {
  fs::create_directories(to);
  markAll(v);
  Saver::Options options;
  options.finalAlert = false;
  return Saver(*v.dirRoot, saveSourceOf(v), nullptr, options).saveFilesAndFolders(to.string());
}

}  // namespace

TEST(Links, SnapshotsSavedWholeThroughFolderAndFileLinks) {
  TempDir dir;
  const BuiltVolume b = buildAndScan(dir, backupVolume());
  Volume& v = *b.scan.volume;
  EXPECT_EQ(v.fileLinks, 2u);    // both names of notes.txt are links now
  EXPECT_EQ(v.folderLinks, 2u);  // so are both of Photos
  EXPECT_EQ(v.symlinks, 2u);
  EXPECT_EQ(v.linksUnresolved, 0u);

  const SaveResult r = saveAll(v, dir / "out");
  EXPECT_FALSE(r.anyFailure());
  EXPECT_EQ(r.symlinksCreated, 2u);
  const auto& vol = b.vol();
  // The linked file's content, wherever its names are.
  const fs::path root = dir / "out/Root";
  const std::vector<uint8_t> notesText = {'f', 'i', 'r', 's', 't', ' ', 'n', 'o', 't', 'e', 's', '\n'};
  EXPECT_EQ(readFile(root / "2024-01-01/notes.txt"), notesText);
  EXPECT_EQ(readFile(root / "2024-02-01/notes.txt"), notesText);
  // Every file of the linked folder in both snapshots, byte for byte.
  for (const char* name : {"a.jpg", "b.jpg"}) {
    const mk::FileLayout* f = nullptr;
    for (const auto& e : vol.entries)
      if (e.name == name && !e.folder) f = &e;
    ASSERT_NE(f, nullptr) << name;
    const auto expected = mk::generatedBytes(f->dataSeed, f->dataSize);
    EXPECT_EQ(readFile(root / "2024-01-01/Photos" / name), expected) << name;
    EXPECT_EQ(readFile(root / "2024-02-01/Photos" / name), expected) << name;
    if (haveIcat()) {
      EXPECT_EQ(icat(b.image, 0, f->cnid), expected) << name;
    }
  }
  // Symbolic links are links with their own target, which nothing followed.
  for (const auto& [name, target] : {std::pair{"latest", "2024-02-01"}, std::pair{"outside", "/etc/passwd"}}) {
    const fs::path p = root / name;
    ASSERT_TRUE(fs::is_symlink(p)) << name;
    EXPECT_EQ(fs::read_symlink(p).string(), target);
  }
}

TEST(Links, FolderLinkLoopIsListedAndSavedOnce) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {folderOf("A", {textFile("x.txt", "x"), linkSpec("back", "", "A")}),
               folderOf("B", {linkSpec("toA", "", "A")})};
  const BuiltVolume b = buildAndScan(dir, spec);
  Volume& v = *b.scan.volume;
  ASSERT_EQ(v.linksUnresolved, 0u);

  std::vector<std::string> listed;
  size_t refused = 0;
  forEachThroughLinks(
      *v.dirRoot, [&](const HDIR& e, const std::string& p) { return listed.push_back(p + "/" + std::string(e.fileName())), true; },
      [&](const HDIR&, const std::string&) { ++refused; });
  // Each place that shows A lists it once; the link back inside it is not entered.
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "/Root/B/toA/x.txt"), 1);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "/Root/A/x.txt"), 1);
  EXPECT_EQ(std::count(listed.begin(), listed.end(), "/Root/A/back/x.txt"), 0);
  EXPECT_GE(refused, 3u);  // A/back, B/toA/back, and the private folder's own copy

  const SaveResult r = saveAll(v, dir / "out");
  // A/back and B/toA/back; A's one copy in the private folder is saved at its links only.
  EXPECT_EQ(r.linkLoops, 2u);
  const fs::path root = dir / "out/Root";
  EXPECT_EQ(readFile(root / "B/toA/x.txt"), std::vector<uint8_t>{'x'});
  EXPECT_TRUE(fs::is_directory(root / "A/back"));
  EXPECT_TRUE(fs::is_empty(root / "A/back"));
}

TEST(Links, FileNamedLikeASavedSymlinkIsNotWrittenThroughIt) {
  // "x/y" is saved as "x:y": the file really named "x:y" then meets the link
  // and must take another name rather than write where the link points.
  TempDir dir;
  mk::VolumeSpec spec;
  spec.root = {symlinkSpec("x/y", "../../victim"), textFile("x:y", "data")};
  const BuiltVolume b = buildAndScan(dir, spec);
  {
    std::FILE* f = std::fopen((dir / "victim").c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("keep", f);
    std::fclose(f);
  }
  Saver::Options options;
  options.finalAlert = false;
  options.canSaveSlashes = true;
  markAll(*b.scan.volume);
  fs::create_directories(dir / "out");
  const SaveResult r = Saver(*b.scan.volume->dirRoot, saveSourceOf(*b.scan.volume), nullptr, options)
                           .saveFilesAndFolders((dir / "out").string());
  EXPECT_EQ(r.filesWritten, 2u);
  EXPECT_EQ(readFile(dir / "victim"), (std::vector<uint8_t>{'k', 'e', 'e', 'p'}));
  ASSERT_TRUE(fs::is_symlink(dir / "out/Root/x:y"));
  EXPECT_EQ(fs::read_symlink(dir / "out/Root/x:y").string(), "../../victim");
  size_t holdingData = 0;
  for (const auto& e : fs::directory_iterator(dir / "out/Root"))
    if (!e.is_symlink() && e.is_regular_file() && readFile(e.path()) == std::vector<uint8_t>{'d', 'a', 't', 'a'})
      ++holdingData;
  EXPECT_EQ(holdingData, 1u);
}

TEST(Links, MacVolumeHardLinksAndSymlinkMatchTheSleuthKit) {
  const auto data = sharedTestData();
  if (data.empty()) GTEST_SKIP() << "shared test data not present";
  if (!haveIcat() || !haveTool("xz")) GTEST_SKIP() << "icat or xz missing";
  TempDir dir;
  const std::string image = (dir / "small.img").string();
  ASSERT_EQ(runCommand("xz -dc '" + (data / "hfs_images/hfsplus-rs/hfsp-small.img.xz").string() + "' > '" + image + "'"),
            0);
  auto scanned = scan(image, 0, fs::file_size(image) / 512, "Normal Scan");
  Volume& v = *scanned.volume;
  EXPECT_EQ(v.fileLinks, 2u);
  EXPECT_EQ(v.symlinks, 1u);
  EXPECT_EQ(v.linksUnresolved, 0u);
  const SaveResult r = saveAll(v, dir / "out");
  EXPECT_FALSE(r.anyFailure());
  // fls names both links inode 29, the iNode file; the symlink is inode 24.
  const auto inode29 = icat(image, 0, 29);
  ASSERT_FALSE(inode29.empty());
  EXPECT_EQ(readFile(dir / "out/Root/files/link1"), inode29);
  EXPECT_EQ(readFile(dir / "out/Root/files/link2"), inode29);
  const auto target = icat(image, 0, 24);
  ASSERT_TRUE(fs::is_symlink(dir / "out/Root/files/third"));
  EXPECT_EQ(fs::read_symlink(dir / "out/Root/files/third").string(), std::string(target.begin(), target.end()));
}

TEST(Links, PrivateFoldersAreSavedOnlyWhereNoLinkReachesTheirEntries) {
  TempDir dir;
  const BuiltVolume b = buildAndScan(dir, backupVolume());
  Volume& v = *b.scan.volume;
  ASSERT_EQ(v.linksUnresolved, 0u);
  const std::set<std::string> everySnapshot = {"2024-01-01", "2024-02-01", "latest", "outside"};
  auto topLevel = [](const fs::path& root) {
    std::set<std::string> names;
    for (const auto& e : fs::directory_iterator(root)) names.insert(e.path().filename().string());
    return names;
  };
  // Listed as the volume holds them.
  std::set<std::string> listedTop;
  for (const auto& c : v.dirRoot->children()) listedTop.emplace(c->fileName());
  EXPECT_TRUE(listedTop.count(kPrivateDataName));
  EXPECT_TRUE(listedTop.count(kPrivateDirectoryName));

  // The notes' iNode and Photos' dir_N are saved at their links, not again as clutter.
  const SaveResult r = saveAll(v, dir / "out");
  EXPECT_FALSE(r.anyFailure());
  EXPECT_EQ(r.savedAtLinks, 2u);
  EXPECT_EQ(topLevel(dir / "out/Root"), everySnapshot);

  // With both names of the notes lost, its iNode is the only copy left: saved there.
  const HDIR* inode = nullptr;
  for (const auto& c : v.dirRoot->children())
    if (c->fileName() == kPrivateDataName && !c->children().empty()) inode = c->childAtIndex(0);
  ASSERT_NE(inode, nullptr);
  for (const auto& snapshot : v.dirRoot->children())
    snapshot->removeChildrenIf([](const HDIR& e) { return e.fileName() == "notes.txt"; });
  const SaveResult lost = saveAll(v, dir / "lost");
  EXPECT_EQ(lost.savedAtLinks, 1u);
  const auto saved = filesUnder(dir / "lost/Root");
  const std::vector<uint8_t> notesText = {'f', 'i', 'r', 's', 't', ' ', 'n', 'o', 't', 'e', 's', '\n'};
  size_t copies = 0;
  for (const auto& [path, bytes] : saved)
    if (path.size() > inode->fileName().size() && path.substr(path.size() - inode->fileName().size()) == inode->fileName()) {
      EXPECT_EQ(bytes, notesText) << path;
      ++copies;
    }
  EXPECT_EQ(copies, 1u);
  EXPECT_EQ(topLevel(dir / "lost/Root").size(), everySnapshot.size() + 1);
}

TEST(Links, AScanInfoFileKeepsWhatEachLinkIs) {
  TempDir dir;
  const BuiltVolume b = buildAndScan(dir, backupVolume());
  Volume& live = *b.scan.volume;
  const uint64_t sectors = fs::file_size(b.image) / 512;
  const std::string asi = (dir / "scan.asi").string();
  ASSERT_FALSE(saveScanInfo(asi, live, PlistArray{volumeDict(b.image, 0, sectors)}, nullptr));
  auto opened = openScanInfo(asi, nullptr);
  ASSERT_TRUE(opened.opened) << opened.error.message;
  Volume& reopened = *opened.opened->volume;
  EXPECT_EQ(reopened.fileLinks, live.fileLinks);
  EXPECT_EQ(reopened.folderLinks, live.folderLinks);
  EXPECT_EQ(reopened.symlinks, live.symlinks);
  // Listed as the scan listed it: symlinks, folder links and their folders' entries.
  EXPECT_EQ(tsvListing(*reopened.dirRoot), tsvListing(*live.dirRoot));
  EXPECT_NE(tsvListing(*reopened.dirRoot).find("/Root/2024-02-01/Photos/a.jpg\tfile"), std::string::npos);

  // And saved as the live tree saves.
  std::string out;
  ASSERT_EQ(runCli("recover '" + asi + "' --out '" + (dir / "fromfile").string() + "'", out), 0) << out;
  saveAll(live, dir / "live");
  const auto fromFile = savedShape(dir / "fromfile/Root");
  EXPECT_EQ(fromFile, savedShape(dir / "live/Root"));
  EXPECT_EQ(fromFile.count("latest") ? fromFile.at("latest") : "", "l -> 2024-02-01");
  EXPECT_EQ(fromFile.count("2024-02-01/Photos") ? fromFile.at("2024-02-01/Photos") : "", "d");
  EXPECT_EQ(fromFile.count("2024-02-01/Photos/a.jpg"), 1u);

  // A file written before links were kept (no linkEntries key) still opens,
  // with every link a plain entry.
  ScanInfo info;
  info.volume = volumeArchiveOf(live);
  ASSERT_FALSE(info.volume.linkEntries.empty());
  info.volume.linkEntries.clear();
  info.partitionList = PlistArray{volumeDict(b.image, 0, sectors)};
  info.first5Sectors.assign(kScanInfoDriveBytes, 0);
  live.readSector(0, 5, info.first5Sectors.data());
  const std::string older = (dir / "older.asi").string();
  ASSERT_FALSE(writeScanInfo(older, info, *live.dirRoot, nullptr));
  auto old = openScanInfo(older, nullptr);
  ASSERT_TRUE(old.opened) << old.error.message;
  EXPECT_EQ(old.opened->volume->symlinks + old.opened->volume->fileLinks + old.opened->volume->folderLinks, 0u);
  const std::string oldListing = tsvListing(*old.opened->volume->dirRoot);
  EXPECT_EQ(oldListing.find("\tsymlink\t"), std::string::npos);
  EXPECT_EQ(oldListing.find("\tfolderlink\t"), std::string::npos);
  EXPECT_NE(oldListing.find("/Root/latest\tfile\t"), std::string::npos);
}
