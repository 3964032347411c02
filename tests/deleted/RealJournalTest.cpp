// A real journal written by an Intel Mac (little-endian header around
// big-endian node copies): the search finds the records that the shared
// journal scripts list as gone from the live catalog, in their folders, with
// their names, dates and sizes. The expected listing is made here, by those
// scripts, from the same image.
#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>

#include "deleted/DeletedHelpers.h"
#include "hfs/JournalInfo.h"

using namespace ambrel;
using namespace ambrel::test;

namespace {

struct JournalRecord {
  bool folder = false;
  uint32_t parent = 0;
  std::string name;
  uint32_t created = 0, modified = 0, accessed = 0;
  uint64_t data = 0, rsrc = 0;
};

std::string fromHex(const std::string& hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  return out;
}

class RealJournal : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto archive = sharedTestData() / "hfs_images/hfsinspect/hfsj.bin.7z";
    if (!std::filesystem::exists(archive)) GTEST_SKIP() << "no " << archive;
    const std::string sevenZip = haveTool("7z") ? "7z" : haveTool("7zz") ? "7zz" : "";
    if (sevenZip.empty() || !haveTool("python3")) GTEST_SKIP() << "7z or python3 missing";
    ASSERT_EQ(runCommand(sevenZip + " x -y -o'" + dir_.path().string() + "' '" + archive.string() + "' >/dev/null"), 0);
    image_ = (dir_ / "hfsj.bin").string();
    tools_ = (sharedTestData() / "tools").string();
  }

  // hfsjournal.py's summary and its records gone from the live catalog, as
  // (parent, cnid) when it could name the cnid.
  std::string journalSummary(std::set<std::pair<uint32_t, uint32_t>>& gone) {
    std::string out;
    EXPECT_EQ(runCommand("SHOWN=100000 python3 '" + tools_ + "/hfsjournal.py' '" + image_ + "'", &out), 0);
    const std::regex line(R"(gone: parent (\d+) name .* cnid \[(\d+)\])");
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) {
      std::smatch m;
      if (std::regex_search(l, m, line)) gone.insert({std::stoul(m[1]), std::stoul(m[2])});
    }
    return out;
  }

  // Every record of the journal's leaf copies by cnid (a cnid may have several versions).
  std::multimap<uint32_t, JournalRecord> journalRecords() {
    std::string out;
    EXPECT_EQ(runCommand("python3 '" AMBREL_SOURCE_DIR "/tests/deleted/journal_records.py' '" + image_ + "' '" + tools_ +
                             "'",
                         &out),
              0);
    std::multimap<uint32_t, JournalRecord> records;
    std::istringstream in(out);
    for (std::string l; std::getline(in, l);) {
      std::vector<std::string> c;
      std::stringstream ls(l);
      for (std::string cell; std::getline(ls, cell, '\t');) c.push_back(cell);
      if (c.size() != 9) continue;
      JournalRecord r;
      r.folder = c[1] == "1";
      r.parent = static_cast<uint32_t>(std::stoul(c[2]));
      r.name = fromHex(c[3]);
      r.created = static_cast<uint32_t>(std::stoul(c[4]));
      r.modified = static_cast<uint32_t>(std::stoul(c[5]));
      r.accessed = static_cast<uint32_t>(std::stoul(c[6]));
      r.data = std::stoull(c[7]);
      r.rsrc = std::stoull(c[8]);
      records.emplace(static_cast<uint32_t>(std::stoul(c[0])), r);
    }
    return records;
  }

  TempDir dir_;
  std::string image_, tools_;
};

}  // namespace

TEST_F(RealJournal, TheLittleEndianJournalIsFoundWhereItsInfoBlockSays) {
  std::set<std::pair<uint32_t, uint32_t>> gone;
  const std::string summary = journalSummary(gone);
  std::smatch info, header;
  ASSERT_TRUE(std::regex_search(summary, info, std::regex(R"(journal info: flags \d+ offset (\d+) size (\d+))")));
  ASSERT_TRUE(std::regex_search(summary, header, std::regex(R"(little_endian=(\w+))")));
  ScanResult r = findDeleted(image_, 0, std::filesystem::file_size(image_) / 512);
  EXPECT_EQ(r.volume->journalStart, std::stoull(info[1]));
  EXPECT_EQ(r.volume->journalSize, std::stoull(info[2]));
  EXPECT_TRUE(r.volume->journalHeaderFound);
  EXPECT_EQ(r.volume->journalHeaderLittleEndian, header[1] == "True");

  // The header itself, read in its own order.
  const auto head = imageBytes(image_, r.volume->journalStart, 512);
  const JournalHeader h = parseJournalHeader(head.data(), head.size());
  std::smatch se;
  ASSERT_TRUE(std::regex_search(summary, se, std::regex(R"(start (\d+) end (\d+) size (\d+) blhdr_size (\d+))")));
  EXPECT_EQ(h.start, std::stoull(se[1]));
  EXPECT_EQ(h.end, std::stoull(se[2]));
  EXPECT_EQ(h.size, std::stoull(se[3]));
  EXPECT_EQ(h.blhdrSize, std::stoul(se[4]));
}

TEST_F(RealJournal, RecordsGoneFromTheCatalogComeBackInTheirFoldersWithNamesDatesAndSizes) {
  std::set<std::pair<uint32_t, uint32_t>> gone;
  const std::string summary = journalSummary(gone);
  const auto records = journalRecords();
  ASSERT_GT(gone.size(), 20u) << summary;
  ScanResult r = findDeleted(image_, 0, std::filesystem::file_size(image_) / 512);
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const auto byID = entriesByFileID(*r.volume->dirRoot);

  // A record passes when its dates and ID are set, as the search requires.
  auto plausible = [](const JournalRecord& rec) { return rec.created && rec.modified && rec.accessed; };
  size_t filesChecked = 0, skipped = 0;
  for (const auto& [parent, cnid] : gone) {
    SCOPED_TRACE("cnid " + std::to_string(cnid));
    const auto [from, to] = records.equal_range(cnid);
    ASSERT_NE(from, to);
    const bool folder = from->second.folder;
    bool anyPlausible = false;
    for (auto it = from; it != to; ++it) anyPlausible |= plausible(it->second);
    if (!anyPlausible) {
      // A record with a zero date is left out.
      EXPECT_EQ(byID.count(cnid), 0u);
      ++skipped;
      continue;
    }
    if (folder && byID.count(cnid) == 0) continue;  // an empty folder is removed at the end
    ASSERT_EQ(byID.count(cnid), 1u);
    const HDIR* h = byID.find(cnid)->second;
    // One of the journal's versions of this record, whole.
    const JournalRecord* match = nullptr;
    for (auto it = from; it != to; ++it) {
      const JournalRecord& rec = it->second;
      if (plausible(rec) && rec.name == h->fileName() && rec.parent == h->parentID && rec.created == h->createDate &&
          rec.modified == h->modDate && (folder || (rec.data == h->dataSize && rec.rsrc == h->rscSize)))
        match = &rec;
    }
    ASSERT_NE(match, nullptr) << h->fileName();
    // In its folder when that folder is in the tree, else in Lost Files.
    ASSERT_NE(h->holder(), nullptr);
    if (byID.count(match->parent))
      EXPECT_EQ(h->holder()->fileID, match->parent) << h->fileName();
    else
      EXPECT_EQ(h->holder()->fileID, kLostFilesID) << h->fileName();
    filesChecked += !folder;
  }
  EXPECT_GT(filesChecked, 20u);
  EXPECT_GT(skipped, 0u);  // the image holds records with a zero creation date
}

// A file or folder deleted while open waits in the private data folder as
// "temp<ID>"; where the journal also keeps its record from before, that one
// names it and places it.
TEST_F(RealJournal, DeletedWhileOpenComesBackUnderItsRealNameAndFolder) {
  const auto records = journalRecords();
  std::set<uint32_t> privateFolders;
  for (const auto& [cnid, rec] : records)
    if (rec.folder && rec.parent == kRootFolderID && rec.name.size() > 4 && rec.name.substr(4) == "HFS+ Private Data")
      privateFolders.insert(cnid);
  ASSERT_EQ(privateFolders.size(), 1u);
  const uint32_t privateFolder = *privateFolders.begin();
  auto tempName = [&](uint32_t cnid, const JournalRecord& rec) {
    return rec.parent == privateFolder && rec.name == "temp" + std::to_string(cnid);
  };
  // By cnid: the first version with a real name, if any, and whether a temp one exists.
  std::map<uint32_t, const JournalRecord*> real;
  std::set<uint32_t> temp;
  for (const auto& [cnid, rec] : records) {
    if (tempName(cnid, rec))
      temp.insert(cnid);
    else
      real.try_emplace(cnid, &rec);
  }

  ScanResult r = findDeleted(image_, 0, std::filesystem::file_size(image_) / 512);
  ASSERT_NE(r.volume->dirRoot, nullptr);
  const auto byID = entriesByFileID(*r.volume->dirRoot);
  size_t renamed = 0, leftAsTemp = 0;
  for (uint32_t cnid : temp) {
    SCOPED_TRACE("cnid " + std::to_string(cnid));
    auto it = byID.find(cnid);
    if (it == byID.end()) continue;  // an empty folder, or a zero date
    const HDIR* h = it->second;
    if (auto named = real.find(cnid); named != real.end()) {
      EXPECT_EQ(h->fileName(), named->second->name);
      EXPECT_EQ(h->parentID, named->second->parent);
      if (byID.count(named->second->parent)) {
        ASSERT_NE(h->holder(), nullptr);
        EXPECT_EQ(h->holder()->fileID, named->second->parent);
      }
      ++renamed;
    } else {
      EXPECT_EQ(h->fileName(), "temp" + std::to_string(cnid));
      EXPECT_EQ(h->parentID, privateFolder);
      ++leftAsTemp;
    }
  }
  // The image holds both kinds (folder 3108 was "untitled folder copy 2").
  EXPECT_GT(renamed, 0u);
  EXPECT_GT(leftAsTemp, 0u);
}
