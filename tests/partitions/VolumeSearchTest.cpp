// The quick and thorough searches of a drive for volumes, the grading of
// each volume and the node-to-sector map.
#include <gtest/gtest.h>

#include <cstring>
#include <regex>

#include "DriveFile.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

using Request = DMedia::VolumeScanRequest;

TinyVolumeLayout volumeNamed(const std::string& name, uint32_t createDate) {
  TinyVolumeLayout s;
  s.name = name;
  s.createDate = createDate;
  return s;
}

struct SearchResult {
  PlistArray volumes, rows;
};

SearchResult search(OpenedDrive& drive, bool quick) {
  SearchResult r;
  Request request{&drive.controller, &r.volumes, &r.rows};
  if (quick) drive.media->initializeForVolumeQuickScan(request);
  else drive.media->initializeForVolumeThoroughScan(request);
  return r;
}

// Volumes graded Valid, in the order found.
std::vector<const PlistDict*> validOnes(const SearchResult& r) {
  std::vector<const PlistDict*> out;
  for (const auto& row : r.rows) {
    if (row.dict()->string("Validity Column") != "Valid") continue;
    const std::string found = row.dict()->string("Found Column");
    const uint64_t start = std::stoull(found.substr(found.rfind(' ') + 1));
    for (const auto& v : r.volumes)
      if (v.dict()->u64("Volume Start") == start && v.dict()->contains("Volume Name") &&
          v.dict()->string("Volume Name") != "Untitled")
        out.push_back(v.dict());
  }
  return out;
}

TEST(VerifyVIB, AcceptsOnlyPlausibleHeaders) {
  Drive d(1024);
  OpenedDrive drive(d);
  VolumeInformationBlock good{};
  const auto bytes = buildTinyVolume(volumeNamed("x", 1));
  std::memcpy(&good, bytes.data() + 1024, sizeof good);
  convertVIB(&good);
  DMedia& m = *drive.media;
  EXPECT_TRUE(m.verifyVIB(good));

  // Block sizes: 512 is legal HFS+ but rejected; 1024..8192 in powers of two only.
  for (uint32_t size : {512u, 1536u, 3072u, 16384u, 0u, 1000u}) {
    auto h = good;
    h.blockSize = size;
    EXPECT_FALSE(m.verifyVIB(h)) << size;
  }
  for (uint32_t size : {1024u, 2048u, 4096u, 8192u}) {
    auto h = good;
    h.blockSize = size;
    EXPECT_TRUE(m.verifyVIB(h)) << size;
  }
  // Each required field zeroed on its own.
  std::vector<std::function<void(VolumeInformationBlock&)>> zeroers = {
      [](auto& h) { h.totalBlocks = 0; },
      [](auto& h) { h.fileCount = 0; },
      [](auto& h) { h.folderCount = 0; },
      [](auto& h) { h.createDate = 0; },
      [](auto& h) { h.modifyDate = 0; },
      [](auto& h) { h.dataClumpSize = 0; },
      [](auto& h) { h.signature = 0, h.version = 0; },
      [](auto& h) { h.catalogFile.logicalSize = 0; },
      [](auto& h) { h.catalogFile.clumpSize = 0; },
      [](auto& h) { h.catalogFile.totalBlocks = 0; },
      [](auto& h) { h.catalogFile.extents.extDesc[0].startBlock = 0; },
      [](auto& h) { h.catalogFile.extents.extDesc[0].blockCount = 0; },
      [](auto& h) { h.extentsFile.logicalSize = 0; },
      [](auto& h) { h.extentsFile.clumpSize = 0; },
      [](auto& h) { h.extentsFile.totalBlocks = 0; },
      [](auto& h) { h.extentsFile.extents.extDesc[0].startBlock = 0; },
      [](auto& h) { h.extentsFile.extents.extDesc[0].blockCount = 0; },
  };
  for (size_t i = 0; i < zeroers.size(); ++i) {
    auto h = good;
    zeroers[i](h);
    EXPECT_FALSE(m.verifyVIB(h)) << "field " << i;
  }
  // Only the signature word zero is still a non-zero first word.
  auto h = good;
  h.signature = 0;
  EXPECT_TRUE(m.verifyVIB(h));
}

TEST(ThoroughSearch, WipedDrivesWithOneTwoAndThreeVolumes) {
  const std::vector<std::string> names = {"First", "Second", "Third"};
  for (size_t count = 1; count <= 3; ++count) {
    Drive d(4096);
    std::vector<uint64_t> starts;
    uint64_t at = 100;
    for (size_t i = 0; i < count; ++i) {
      auto spec = volumeNamed(names[i], 0xD0000000u + static_cast<uint32_t>(i));
      d.place(at, buildTinyVolume(spec));
      starts.push_back(at);
      at += tinyVolumeSectors(spec) + 37;
    }
    OpenedDrive drive(d);
    auto r = search(drive, false);
    auto valid = validOnes(r);
    ASSERT_EQ(valid.size(), count);
    for (size_t i = 0; i < count; ++i) {
      EXPECT_EQ(valid[i]->u64("Volume Start"), starts[i]);
      EXPECT_EQ(valid[i]->u64("Volume Size In Sectors"), 512u);
      EXPECT_EQ(valid[i]->string("Volume Name"), names[i]);
      EXPECT_EQ(valid[i]->string("Volume Validity"), "100");
      EXPECT_EQ(valid[i]->i64("Volume Scan Type"), 1);
      EXPECT_EQ(valid[i]->u64("WhetherAlternateSector", 99), 0u);
      EXPECT_EQ(valid[i]->string("Path"), drive.path);
    }
    // Each later volume starts past its own size, so its primary header is
    // also read as an alternate one: that reading lands in no volume, the
    // disk confirms nothing of it, and the volume is already listed.
    EXPECT_EQ(r.volumes.size(), count);
    for (const auto& row : r.rows) EXPECT_EQ(row.dict()->string("Validity Column"), "Valid");
    EXPECT_EQ(r.volumes.size(), drive.media->volumeScanArray.size());
    EXPECT_EQ(drive.media->volFoundAtSectorArray.size(), r.rows.size());
  }
}

TEST(QuickSearch, FindsValidVolumesAndSkipsTheirInsides) {
  Drive d(4096);
  d.place(100, buildTinyVolume(volumeNamed("One", 1)));
  d.place(700, buildTinyVolume(volumeNamed("Two", 2)));
  OpenedDrive drive(d);
  auto r = search(drive, true);
  ASSERT_EQ(r.rows.size(), 2u);
  EXPECT_EQ(r.rows[0].dict()->string("Found Column"), "Volume Start Signature Found At Sector: 100");
  EXPECT_EQ(r.rows[0].dict()->string("Validity Column"), "Valid");
  EXPECT_EQ(r.rows[1].dict()->string("Found Column"), "Volume Start Signature Found At Sector: 700");
  ASSERT_EQ(r.volumes.size(), 2u);
  EXPECT_EQ(r.volumes[1].dict()->string("Volume Name"), "Two");
}

TEST(QuickSearch, OnlyTheFirstSignatureOfAChunkIsExamined) {
  Drive d(4096);
  d.place(130, buildTinyVolume(volumeNamed("Hidden", 1)));  // header at 132, chunk 126..188
  storeBE16(d.sector(127), 0x482B);                          // an earlier stray 'H+' in that chunk
  OpenedDrive quick(d);
  EXPECT_TRUE(search(quick, true).rows.empty());
  OpenedDrive thorough(d);
  const auto found = search(thorough, false);
  auto valid = validOnes(found);
  ASSERT_EQ(valid.size(), 1u);
  EXPECT_EQ(valid[0]->u64("Volume Start"), 130u);
}

TEST(QuickSearch, AVolumeEndingAtTheDrivesEndIsNotListed) {
  auto spec = volumeNamed("Edge", 1);
  Drive d(200 + tinyVolumeSectors(spec));
  d.place(200, buildTinyVolume(spec));
  OpenedDrive quick(d);
  EXPECT_TRUE(search(quick, true).volumes.empty());
  OpenedDrive thorough(d);
  const auto found = search(thorough, false);
  EXPECT_EQ(validOnes(found).size(), 1u);
}

TEST(ThoroughSearch, DamagedPrimaryHeaderIsFoundFromTheAlternate) {
  Drive d(4096);
  auto spec = volumeNamed("Survivor", 7);
  spec.primaryHeaderZeroed = true;
  d.place(300, buildTinyVolume(spec));
  OpenedDrive drive(d);
  auto r = search(drive, false);
  auto valid = validOnes(r);
  ASSERT_EQ(valid.size(), 1u);
  EXPECT_EQ(valid[0]->u64("Volume Start"), 300u);
  EXPECT_EQ(valid[0]->string("Volume Name"), "Survivor");
  EXPECT_EQ(valid[0]->u64("WhetherAlternateSector"), 300u + 512 - 2);
  OpenedDrive quick(d);
  EXPECT_TRUE(search(quick, true).rows.empty());
}

TEST(ThoroughSearch, BrokenCatalogHeaderIsPartialValidWithTheLeafShare) {
  Drive d(4096);
  auto spec = volumeNamed("Broken", 9);
  spec.catalogHeaderBroken = true;
  spec.leafNodes = 3;  // 4 catalog blocks = 2 assumed 8 KiB nodes: the broken header and a leaf
  d.place(500, buildTinyVolume(spec));
  OpenedDrive drive(d);
  auto r = search(drive, false);
  ASSERT_EQ(r.rows.size(), 1u);
  EXPECT_EQ(r.rows[0].dict()->string("Found Column"), "Volume Found At Sector: 500");
  EXPECT_EQ(r.rows[0].dict()->string("Validity Column"), "Partial Valid");
  ASSERT_EQ(r.volumes.size(), 1u);
  const PlistDict& v = *r.volumes[0].dict();
  EXPECT_EQ(v.string("Volume Name"), "Untitled");
  EXPECT_EQ(v.string("Volume Validity"), "50");
  EXPECT_EQ(v.u64("Volume Size In Sectors"), 512u);
  // The quick search lists only Valid volumes in its rows.
  OpenedDrive quick(d);
  auto q = search(quick, true);
  EXPECT_TRUE(q.rows.empty());
}

TEST(Verify, LeafChainThatLoopsEndsAtTheVisitedNode) {
  Drive d(2048);
  auto spec = volumeNamed("Loop", 3);
  spec.leafNodes = 4;
  spec.leafChainLoops = true;
  d.place(0, buildTinyVolume(spec));
  OpenedDrive drive(d);
  DMedia& m = *drive.media;
  m.readSector(2, 1, &m.vib);
  convertVIB(&m.vib);
  m.HPlusVolStart = 0;
  std::string result;
  m.verifyVolumeAndGetData(result, 0);
  EXPECT_EQ(result, "Valid");
  ASSERT_EQ(m.volumeScanArray.size(), 1u);
  EXPECT_EQ(m.volumeScanArray[0].dict()->string("Volume Validity"), "100");
  EXPECT_EQ(m.btreeForUsedCatNodeSector.numItems(), 4);
}

TEST(Verify, AbortRemovesTheEntryItAppendedAndGradesInvalid) {
  Drive d(2048);
  d.place(0, buildTinyVolume(volumeNamed("Stopped", 3)));
  OpenedDrive drive(d);
  DMedia& m = *drive.media;
  m.volumeScanArray.push_back(PlistDict{{"Volume Start", 1}});  // from an earlier verification
  m.readSector(2, 1, &m.vib);
  convertVIB(&m.vib);
  m.HPlusVolStart = 0;
  m.setAbortVolumeScan(true);
  std::string result;
  m.verifyVolumeAndGetData(result, 0);
  EXPECT_EQ(result, "Invalid");
  ASSERT_EQ(m.volumeScanArray.size(), 1u);
  EXPECT_EQ(m.volumeScanArray[0].dict()->u64("Volume Start"), 1u);
}

TEST(Search, AbortBeforeStartReadsNothingAndStillCompletes) {
  Drive d(4096);
  d.place(100, buildTinyVolume(volumeNamed("One", 1)));
  for (bool quick : {true, false}) {
    OpenedDrive drive(d);
    drive.media->setAbortVolumeScan(true);
    auto r = search(drive, quick);
    EXPECT_TRUE(r.volumes.empty());
    ASSERT_FALSE(drive.controller.volumeScanReports.empty());
    EXPECT_TRUE(drive.controller.volumeScanReports.back().boolean("Scan Complete"));
  }
}

TEST(Search, ProgressReportsCarryTheExactKeys) {
  Drive d(63 * 250);  // 250 chunks: reports at the 100th and 200th
  d.place(100, buildTinyVolume(volumeNamed("One", 1)));
  const std::regex estimate("[0-9]+:[0-9]+:[0-9]+:[0-9]+");

  OpenedDrive quick(d);
  search(quick, true);
  auto& qr = quick.controller.volumeScanReports;
  ASSERT_GE(qr.size(), 3u);
  EXPECT_EQ(qr.front(), (ProgressReport{{"BarMaxValue", uint64_t{250}}}));
  EXPECT_TRUE(qr.back().boolean("Scan Complete"));
  int estimates = 0, found = 0;
  for (const auto& r : qr) {
    if (const PlistValue* v = r.find("TimeRemaining")) {
      ++estimates;
      EXPECT_TRUE(std::regex_match(*v->string(), estimate)) << *v->string();
      EXPECT_EQ(r.i64("BarIncrement"), 100);
    }
    found += r.contains("Volumes Found");
  }
  EXPECT_EQ(found, 1);
  EXPECT_GE(estimates, 1);

  OpenedDrive thorough(d);
  search(thorough, false);
  auto& tr = thorough.controller.volumeScanReports;
  ASSERT_GE(tr.size(), 6u);
  EXPECT_EQ(tr[0], (ProgressReport{{"BarMaxValue", uint64_t{250}}}));
  EXPECT_EQ(tr[1], (ProgressReport{{"BarDoubleValue", 0}}));
  EXPECT_EQ(tr[2], (ProgressReport{{"TimeRemaining", ""}}));
  int starts = 0, stops = 0, thoroughEstimates = 0;
  for (size_t i = 3; i < tr.size(); ++i) {
    starts += tr[i].boolean("Start Animation");
    stops += tr[i].boolean("Stop Animation");
    if (const PlistValue* v = tr[i].find("TimeRemaining")) {
      ++thoroughEstimates;
      EXPECT_TRUE(std::regex_match(*v->string(), estimate)) << *v->string();
    }
  }
  EXPECT_EQ(starts, stops);
  EXPECT_GE(starts, 1);
  EXPECT_EQ(thoroughEstimates, 2);
  EXPECT_TRUE(tr.back().boolean("Scan Complete"));
}

TEST(NodeMap, CatalogNodesMapAcrossExtentsAndNotBeyond) {
  Drive d(64);
  OpenedDrive drive(d);
  DMedia& m = *drive.media;
  m.HPlusVolStart = 1000;
  m.blockSize = 8;    // 4 KiB blocks
  m.catNodeSize = 16; // 8 KiB nodes: 2 blocks each
  m.catalogExt = {{10, 4}, {50, 2}};
  EXPECT_EQ(m.catalogNodeToSector(0), 1000u + 80);
  EXPECT_EQ(m.catalogNodeToSector(1), 1000u + 96);
  EXPECT_EQ(m.catalogNodeToSector(2), 1000u + 400);
  EXPECT_EQ(m.catalogNodeToSector(3), DMedia::kNoSector);
  m.catNodeSize = 0;
  EXPECT_EQ(m.catalogNodeToSector(0), DMedia::kNoSector);

  m.extNodeSize = 8;
  m.vib = {};
  m.vib.extentsFile.extents.extDesc[0] = {20, 1};
  m.vib.extentsFile.extents.extDesc[1] = {40, 1};
  EXPECT_EQ(m.extentsNodeToSector(1), 1000u + 320);
  EXPECT_EQ(m.extentsNodeToSector(2), DMedia::kNoSector);  // past all eight descriptors
}

}  // namespace
}  // namespace ambrel::test
