// The conversions on real byte patterns: which fields turn to host order,
// which keep their disk bytes, and that every conversion is its own inverse.
#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <fstream>
#include <vector>

#include "base/Endian.h"
#include "media/Records.h"
#include "support/TempDir.h"

using namespace ambrel;

namespace {

template <class T>
std::array<uint8_t, sizeof(T)> bytesOf(const T& record) {
  std::array<uint8_t, sizeof(T)> out;
  std::memcpy(out.data(), &record, sizeof(T));
  return out;
}

template <class T>
T recordFrom(const std::vector<uint8_t>& bytes, size_t offset = 0) {
  T record;
  std::memcpy(&record, bytes.data() + offset, sizeof(T));
  return record;
}

// A volume header as a Mac writes it, field by field in big-endian.
std::vector<uint8_t> sampleVolumeHeader() {
  std::vector<uint8_t> b(512, 0);
  storeBE16(&b[0], 0x482B);
  storeBE16(&b[2], 4);
  storeBE32(&b[4], 0x80002100);      // unmounted, journaled
  std::memcpy(&b[8], "10.0", 4);
  storeBE32(&b[12], 0x1A2B);         // journal info block
  storeBE32(&b[16], 0xE64761C9);
  storeBE32(&b[32], 1234);
  storeBE32(&b[36], 56);
  storeBE32(&b[40], 4096);
  storeBE32(&b[44], 0x000100C8);
  storeBE64(&b[72], 0x0000000100000001ULL);
  for (int i = 0; i < 32; ++i) b[80 + i] = static_cast<uint8_t>(0xA0 + i);  // Finder info
  // Catalog fork: logical size, clump, total blocks, two extents then a stop.
  storeBE64(&b[272], 0x0000000123456789ULL);
  storeBE32(&b[280], 0x00100000);
  storeBE32(&b[284], 300);
  storeBE32(&b[288], 10);
  storeBE32(&b[292], 100);
  storeBE32(&b[296], 500);
  storeBE32(&b[300], 200);
  storeBE32(&b[304], 0);             // stop: start block zero
  storeBE32(&b[308], 7);             // a count after the stop stays in disk order
  return b;
}

}  // namespace

TEST(Records, VolumeHeaderConvertsScalarsAndForksButNotFinderInfo) {
  const auto disk = sampleVolumeHeader();
  auto vib = recordFrom<VolumeInformationBlock>(disk);
  convertVIB(&vib);

  EXPECT_EQ(+vib.signature, kHFSPlusSigWord);
  EXPECT_EQ(+vib.version, 4);
  EXPECT_EQ(+vib.attributes, 0x80002100u);
  EXPECT_EQ(+vib.journalInfoBlock, 0x1A2Bu);
  EXPECT_EQ(+vib.createDate, 0xE64761C9u);
  EXPECT_EQ(+vib.fileCount, 1234u);
  EXPECT_EQ(+vib.folderCount, 56u);
  EXPECT_EQ(+vib.blockSize, 4096u);
  EXPECT_EQ(+vib.totalBlocks, 0x000100C8u);
  EXPECT_EQ(+vib.encodingsBitmap, 0x0000000100000001ULL);  // one 64-bit value, not two halves
  EXPECT_EQ(0, std::memcmp(vib.finderInfo, &disk[80], 32));

  const auto& cat = vib.catalogFile;
  EXPECT_EQ(+cat.logicalSize, 0x0000000123456789ULL);
  EXPECT_EQ(+cat.clumpSize, 0x00100000u);
  EXPECT_EQ(+cat.totalBlocks, 300u);
  EXPECT_EQ(+cat.extents.extDesc[0].startBlock, 10u);
  EXPECT_EQ(+cat.extents.extDesc[0].blockCount, 100u);
  EXPECT_EQ(+cat.extents.extDesc[1].startBlock, 500u);
  EXPECT_EQ(+cat.extents.extDesc[1].blockCount, 200u);
  EXPECT_EQ(+cat.extents.extDesc[2].startBlock, 0u);
  EXPECT_EQ(+cat.extents.extDesc[2].blockCount, bswap32(7));  // untouched after the stop

  convertVIB(&vib);
  EXPECT_EQ(bytesOf(vib), bytesOf(recordFrom<VolumeInformationBlock>(disk)));
}

TEST(Records, ExtentRecordStopRule) {
  // First descriptor zero: the whole record stays as it is on disk.
  std::vector<uint8_t> b(64, 0);
  storeBE32(&b[4], 9);
  storeBE32(&b[8], 77);
  storeBE32(&b[12], 5);
  auto rec = recordFrom<HFSPlusExtentRecord_>(b);
  convertHPlusExtRec(&rec);
  EXPECT_EQ(bytesOf(rec), bytesOf(recordFrom<HFSPlusExtentRecord_>(b)));

  // Eight used descriptors: all converted, nothing read beyond the eighth.
  std::vector<uint8_t> full(64 + 8, 0xEE);
  for (uint32_t i = 0; i < 8; ++i) {
    storeBE32(&full[i * 8], 1000 + i);
    storeBE32(&full[i * 8 + 4], 1 + i);
  }
  auto all = recordFrom<HFSPlusExtentRecord_>(full);
  convertHPlusExtRec(&all);
  for (uint32_t i = 0; i < 8; ++i) {
    EXPECT_EQ(+all.extDesc[i].startBlock, 1000 + i);
    EXPECT_EQ(+all.extDesc[i].blockCount, 1 + i);
  }
  convertHPlusExtRec(&all);
  EXPECT_EQ(0, std::memcmp(&all, full.data(), 64));
}

TEST(Records, BTreeHeaderLeavesUnreadFieldsInDiskOrder) {
  std::vector<uint8_t> b(106, 0);
  storeBE16(&b[0], 3);
  storeBE32(&b[2], 0x00010203);   // root node at an odd-word offset
  storeBE32(&b[6], 4000);
  storeBE32(&b[10], 17);
  storeBE32(&b[14], 0x11223344);  // last leaf
  storeBE16(&b[18], 8192);
  storeBE16(&b[20], 516);         // max key length
  storeBE32(&b[22], 1000);
  storeBE32(&b[26], 12);
  storeBE32(&b[32], 0x00100000);  // clump size
  b[36] = 0;
  b[37] = 0xCF;
  storeBE32(&b[38], 0x00000006);  // attributes
  auto hdr = recordFrom<BTHeaderRecord>(b);
  convertBTHdrRec(&hdr);
  EXPECT_EQ(+hdr.treeDepth, 3);
  EXPECT_EQ(+hdr.rootNode, 0x00010203u);
  EXPECT_EQ(+hdr.leafRecords, 4000u);
  EXPECT_EQ(+hdr.firstLeafNode, 17u);
  EXPECT_EQ(+hdr.nodeSize, 8192);
  EXPECT_EQ(+hdr.totalNodes, 1000u);
  EXPECT_EQ(+hdr.freeNodes, 12u);
  EXPECT_EQ(+hdr.keyCompareType, 0xCF);
  EXPECT_EQ(+hdr.lastLeafNode, bswap32(0x11223344));
  EXPECT_EQ(+hdr.maxKeyLength, bswap16(516));
  EXPECT_EQ(+hdr.clumpSize, bswap32(0x00100000));
  EXPECT_EQ(+hdr.attributes, bswap32(6));
  convertBTHdrRec(&hdr);
  EXPECT_EQ(0, std::memcmp(&hdr, b.data(), 106));

  std::vector<uint8_t> nd(14, 0);
  storeBE32(&nd[0], 44);
  storeBE32(&nd[4], 42);
  nd[8] = 0xFF;
  nd[9] = 1;
  storeBE16(&nd[10], 19);
  storeBE16(&nd[12], 0xBEEF);
  auto desc = recordFrom<BTNodeDescriptor_>(nd);
  convertBTNodeDesc(&desc);
  EXPECT_EQ(+desc.fLink, 44u);
  EXPECT_EQ(+desc.bLink, 42u);
  EXPECT_EQ(+desc.kind, kBTLeafNode);
  EXPECT_EQ(+desc.height, 1);
  EXPECT_EQ(+desc.numRecords, 19);
  EXPECT_EQ(+desc.reserved, bswap16(0xBEEF));
}

TEST(Records, CatalogKeysBoundedAndUnbounded) {
  std::vector<uint8_t> b(sizeof(HFSPlusCatalogKey_), 0);
  storeBE16(&b[0], 6 + 2 * 3);
  storeBE32(&b[2], 16);
  storeBE16(&b[6], 3);
  storeBE16(&b[8], u'a');
  storeBE16(&b[10], 0x00E9);  // é
  storeBE16(&b[12], 0x2603);
  auto key = recordFrom<HFSPlusCatalogKey_>(b);
  convertHPlusCatalogKey(&key);
  EXPECT_EQ(+key.keyLength, 12);
  EXPECT_EQ(+key.parentID, 16u);
  ASSERT_EQ(+key.nodeName.length, 3);
  EXPECT_EQ(+key.nodeName.unicode[0], u'a');
  EXPECT_EQ(+key.nodeName.unicode[1], 0x00E9);
  EXPECT_EQ(+key.nodeName.unicode[2], 0x2603);

  auto bounded = recordFrom<HFSPlusCatalogKey_>(b);
  EXPECT_TRUE(convertHPlusCatalogKeyBounded(&bounded));
  EXPECT_EQ(bytesOf(bounded), bytesOf(key));

  // A name length of 256 is refused: header converted, name left big-endian.
  storeBE16(&b[6], 256);
  auto hostile = recordFrom<HFSPlusCatalogKey_>(b);
  EXPECT_FALSE(convertHPlusCatalogKeyBounded(&hostile));
  EXPECT_EQ(+hostile.keyLength, 12);
  EXPECT_EQ(+hostile.parentID, 16u);
  EXPECT_EQ(+hostile.nodeName.length, 256);
  EXPECT_EQ(0, std::memcmp(hostile.nodeName.unicode, &b[8], 510));
}

TEST(Records, CatalogFileAndFolderKeepFinderBytes) {
  std::vector<uint8_t> f(248, 0);
  storeBE16(&f[0], 2);
  storeBE16(&f[2], 0x0002);
  storeBE32(&f[8], 0x41);
  storeBE32(&f[12], 0xD0000000);
  storeBE32(&f[16], 0xD0000001);
  std::memcpy(&f[32], "\x00\x00\x01\xF5\x00\x00\x00\x14\x00\x00\x81\xA4\x00\x00\x00\x01", 16);
  std::memcpy(&f[48], "TEXTttxt", 8);
  storeBE32(&f[80], 0x7E);
  storeBE64(&f[88], 5000);           // data fork logical size
  storeBE32(&f[100], 2);
  storeBE32(&f[104], 300);
  storeBE32(&f[108], 2);
  storeBE64(&f[168], 0);             // empty resource fork
  auto file = recordFrom<HFSPlusCatalogFile_>(f);
  convertHPlusCatalogFile(&file);
  EXPECT_EQ(+file.recordType, kHFSPlusFileRecord);
  EXPECT_EQ(+file.flags, 2);
  EXPECT_EQ(+file.fileID, 0x41u);
  EXPECT_EQ(+file.createDate, 0xD0000000u);
  EXPECT_EQ(+file.contentModDate, 0xD0000001u);
  EXPECT_EQ(+file.textEncoding, 0x7Eu);
  EXPECT_EQ(0, std::memcmp(file.userInfo.fileType, "TEXT", 4));
  EXPECT_EQ(0, std::memcmp(file.userInfo.fileCreator, "ttxt", 4));
  EXPECT_EQ(0, std::memcmp(&file.permissions, &f[32], 16));
  EXPECT_EQ(+file.dataFork.logicalSize, 5000u);
  EXPECT_EQ(+file.dataFork.totalBlocks, 2u);
  EXPECT_EQ(+file.dataFork.extents.extDesc[0].startBlock, 300u);
  EXPECT_EQ(+file.dataFork.extents.extDesc[0].blockCount, 2u);
  convertHPlusCatalogFile(&file);
  EXPECT_EQ(0, std::memcmp(&file, f.data(), 248));

  std::vector<uint8_t> d(88, 0);
  storeBE16(&d[0], 1);
  storeBE32(&d[4], 7);
  storeBE32(&d[8], 0x10);
  for (int i = 32; i < 80; ++i) d[i] = static_cast<uint8_t>(i);
  storeBE32(&d[84], 0xCAFEF00D);
  auto folder = recordFrom<HFSPlusCatalogFolder_>(d);
  convertHPlusCatalogFolder(&folder);
  EXPECT_EQ(+folder.recordType, kHFSPlusFolderRecord);
  EXPECT_EQ(+folder.valence, 7u);
  EXPECT_EQ(+folder.folderID, 0x10u);
  EXPECT_EQ(0, std::memcmp(&folder.permissions, &d[32], 48));
  EXPECT_EQ(+folder.reserved, bswap32(0xCAFEF00D));
}

TEST(Records, WrapperMasterDirectoryBlock) {
  std::vector<uint8_t> b(162, 0);
  storeBE16(&b[0], 0x4244);
  storeBE16(&b[18], 0xFFFF);         // allocation blocks
  storeBE32(&b[20], 0x00008000);     // allocation block size
  storeBE16(&b[28], 0x0014);         // first allocation block sector
  b[36] = 5;
  std::memcpy(&b[37], "Untit", 5);
  for (int i = 0; i < 32; ++i) b[92 + i] = static_cast<uint8_t>(i);
  storeBE16(&b[124], 0x482B);
  storeBE16(&b[126], 0x0002);
  storeBE16(&b[128], 0x1234);
  storeBE16(&b[134], 0x0101);
  storeBE16(&b[160], 0x0F0F);        // last half of the catalog extent record
  auto mdb = recordFrom<MasterDirectoryBlock>(b);
  convertMDB(&mdb);
  EXPECT_EQ(+mdb.drSigWord, kHFSSigWord);
  EXPECT_EQ(+mdb.drNmAlBlks, 0xFFFF);
  EXPECT_EQ(+mdb.drAlBlkSiz, 0x8000u);
  EXPECT_EQ(+mdb.drAlBlSt, 0x14);
  EXPECT_EQ(+mdb.nameLength, 5);
  EXPECT_EQ(0, std::memcmp(mdb.drVN, "Untit", 5));
  EXPECT_EQ(+mdb.drEmbedSigWord, kHFSPlusSigWord);
  EXPECT_EQ(+mdb.drEmbedExtent.xdrStABN, 2);
  EXPECT_EQ(+mdb.drEmbedExtent.xdrNumABlks, 0x1234);
  EXPECT_EQ(+mdb.drXTExtRec.DescArray[0].xdrStABN, 0x0101);
  EXPECT_EQ(+mdb.drCTExtRec.DescArray[2].xdrNumABlks, 0x0F0F);
  EXPECT_EQ(0, std::memcmp(mdb.drFndrInfo, &b[92], 32));
  convertMDB(&mdb);
  EXPECT_EQ(0, std::memcmp(&mdb, b.data(), 162));
}

TEST(Records, PartitionRecords) {
  std::vector<uint8_t> pmBytes(512, 0);
  storeBE16(&pmBytes[0], 0x504D);
  storeBE32(&pmBytes[4], 4);
  storeBE32(&pmBytes[8], 64);
  storeBE32(&pmBytes[12], 409600);
  std::strcpy(reinterpret_cast<char*>(&pmBytes[16]), "Macintosh HD");
  std::strcpy(reinterpret_cast<char*>(&pmBytes[48]), "Apple_HFS");
  auto pm = recordFrom<PartitionMap>(pmBytes);
  convertPM(&pm);
  EXPECT_EQ(+pm.pmSig, kPartitionMapSignature);
  EXPECT_EQ(+pm.pmMapBlkCnt, 4);
  EXPECT_EQ(+pm.pmPyPartStart, 64u);
  EXPECT_EQ(+pm.pmPartBlkCnt, 409600u);
  EXPECT_STREQ(pm.pmParType, "Apple_HFS");

  std::vector<uint8_t> mbrBytes(512);
  for (size_t i = 0; i < 512; ++i) mbrBytes[i] = static_cast<uint8_t>(i * 7);
  auto mbr = recordFrom<MasterBootRecord>(mbrBytes);
  convertMBR(&mbr);
  EXPECT_EQ(0, std::memcmp(&mbr, mbrBytes.data(), 512));

  std::vector<uint8_t> gpt(512, 0);
  std::memcpy(&gpt[0], "EFI PART", 8);
  storeLE32(&gpt[80], 128);
  auto hdr = recordFrom<GUIDPartitionTableHeader>(gpt);
  convertGPTHeader(&hdr);
  EXPECT_EQ(+hdr.signature, kGPTSignature);
  EXPECT_EQ(+hdr.numberOfPartitionEntries, 128u);  // little-endian: already host order

  // The HFS+ type GUID 48465300-0000-11AA-AA11-00306543ECAC as it lies on disk.
  const uint8_t hfsType[16] = {0x00, 0x53, 0x46, 0x48, 0x00, 0x00, 0xAA, 0x11,
                               0xAA, 0x11, 0x00, 0x30, 0x65, 0x43, 0xEC, 0xAC};
  std::vector<uint8_t> e(128, 0);
  std::memcpy(&e[0], hfsType, 16);
  storeLE64(&e[32], 40);
  storeLE64(&e[40], 409639);
  storeLE16(&e[56], u'H');
  auto entry = recordFrom<GUIDPartitionTableEntry>(e);
  convertGPTEntry(&entry);
  EXPECT_EQ(+entry.typeGUIDHigh, 0x005346480000AA11ULL);
  EXPECT_EQ(+entry.typeGUIDLow, 0xAA1100306543ECACULL);
  EXPECT_EQ(+entry.startingLBA, 40u);
  EXPECT_EQ(+entry.endingLBA, 409639u);
  EXPECT_EQ(+entry.partitionName[0], u'H');
  convertGPTEntry(&entry);
  EXPECT_EQ(0, std::memcmp(&entry, e.data(), 128));
}

TEST(Records, UnicodeHelpers) {
  uint8_t units[6] = {0x00, 0x41, 0x26, 0x03, 0xFF, 0xFE};
  swapBigUniCharArrayToHost(units, 2);
  EXPECT_EQ(loadLE16(&units[0]), 0x0041);
  EXPECT_EQ(loadLE16(&units[2]), 0x2603);
  EXPECT_EQ(units[4], 0xFF);  // beyond the count: untouched
  swapHostUniCharArrayToBig(units, 2);
  EXPECT_EQ(loadBE16(&units[0]), 0x0041);
  const uint8_t before[6] = {0x00, 0x41, 0x26, 0x03, 0xFF, 0xFE};
  swapLittleUniCharArrayToHost(units, 3);
  EXPECT_EQ(0, std::memcmp(units, before, 6));
  swapBigUniCharArrayToHost(units, 0);
  swapBigUniCharArrayToHost(units, -1);
  EXPECT_EQ(0, std::memcmp(units, before, 6));
}

// A volume header made on a Mac, checked against what fsstat reports for it.
TEST(Records, RealVolumeHeaderAgreesWithFsstat) {
  auto dir = test::sharedTestData();
  if (dir.empty()) GTEST_SKIP() << "shared test data not present";
  std::ifstream in(dir / "hfs_images/hfsplus-forensic/hfs_plus_volume.bin", std::ios::binary);
  ASSERT_TRUE(in);
  std::vector<uint8_t> sector(512);
  in.seekg(1024);
  in.read(reinterpret_cast<char*>(sector.data()), 512);
  auto vib = recordFrom<VolumeInformationBlock>(sector);
  convertVIB(&vib);
  EXPECT_EQ(+vib.signature, kHFSPlusSigWord);
  EXPECT_EQ(+vib.version, 4);
  EXPECT_EQ(+vib.blockSize, 4096u);  // fsstat: Allocation Block Size: 4096
  EXPECT_EQ(+vib.totalBlocks, 200u); // Block Range: 0 - 199
  EXPECT_EQ(+vib.freeBlocks, 163u);  // Number of Free Blocks: 163
  EXPECT_EQ(+vib.fileCount, 2u);
  EXPECT_EQ(+vib.folderCount, 3u);
  EXPECT_EQ(+vib.nextCatalogID, 21u);  // metadata range ends at 20
  // Volume identifier cbca7a9da91c69b3 lives in the untouched Finder info.
  const uint8_t id[8] = {0xcb, 0xca, 0x7a, 0x9d, 0xa9, 0x1c, 0x69, 0xb3};
  EXPECT_EQ(0, std::memcmp(vib.finderInfo + 24, id, 8));
}
