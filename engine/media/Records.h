#pragma once
// On-disk records, declared exactly as they lie on disk. A record is read raw
// into one of these and brought to host order in place by its convert
// function. The conversions are deliberately partial: fields they leave alone
// stay in disk byte order, and code reading those must read disk-order bytes.
#include <cstddef>
#include <cstdint>

namespace ambrel {

#pragma pack(push, 1)

struct HFSPlusExtentDescriptor_ {
  uint32_t startBlock;
  uint32_t blockCount;
};

struct HFSPlusExtentRecord_ {
  HFSPlusExtentDescriptor_ extDesc[8];
};

struct HFSPlusForkData_ {
  uint64_t logicalSize;
  uint32_t clumpSize;
  uint32_t totalBlocks;
  HFSPlusExtentRecord_ extents;
};

// HFS+/HFSX volume header, 1024 bytes into the volume (alternate: 1024 before its end).
struct VolumeInformationBlock {
  uint16_t signature;           // 'H+' or 'HX'
  uint16_t version;             // 4 HFS+, 5 HFSX
  uint32_t attributes;
  uint32_t lastMountedVersion;
  uint32_t journalInfoBlock;
  uint32_t createDate;
  uint32_t modifyDate;
  uint32_t backupDate;
  uint32_t checkedDate;
  uint32_t fileCount;
  uint32_t folderCount;
  uint32_t blockSize;           // bytes
  uint32_t totalBlocks;
  uint32_t freeBlocks;
  uint32_t nextAllocation;
  uint32_t rsrcClumpSize;
  uint32_t dataClumpSize;
  uint32_t nextCatalogID;
  uint32_t writeCount;
  uint64_t encodingsBitmap;
  uint8_t finderInfo[32];       // never converted
  HFSPlusForkData_ allocationFile;
  HFSPlusForkData_ extentsFile;
  HFSPlusForkData_ catalogFile;
  HFSPlusForkData_ attributesFile;
  HFSPlusForkData_ startupFile;
};

struct HFSExtentDecriptor {
  uint16_t xdrStABN;
  uint16_t xdrNumABlks;
};

struct ExtentDataRecord {
  HFSExtentDecriptor DescArray[3];
};

// Classic HFS master directory block of a wrapper, 1024 bytes into it.
struct MasterDirectoryBlock {
  uint16_t drSigWord;           // 'BD'
  uint32_t drCrDate;
  uint32_t drLsMod;
  uint16_t drAtrb;
  uint16_t drNmFls;
  uint16_t drVBMSt;
  uint16_t drAllocPtr;
  uint16_t drNmAlBlks;
  uint32_t drAlBlkSiz;
  uint32_t drClpSiz;
  uint16_t drAlBlSt;            // first allocation block, in 512-byte sectors
  uint32_t drNxtCNID;
  uint16_t drFreeBks;
  uint8_t nameLength;
  uint8_t drVN[27];             // Pascal string body
  uint32_t drVolBkUp;
  uint16_t drVSeqNum;
  uint32_t drWrCnt;
  uint32_t drXTClpSiz;
  uint32_t drCTClpSiz;
  uint16_t drNmRtDirs;
  uint32_t drFilCnt;
  uint32_t drDirCnt;
  uint32_t drFndrInfo[8];       // never converted
  uint16_t drEmbedSigWord;      // 'H+' when an HFS+ volume is embedded
  HFSExtentDecriptor drEmbedExtent;
  uint32_t drXTFlSize;
  ExtentDataRecord drXTExtRec;
  uint32_t drCTFlSize;
  ExtentDataRecord drCTExtRec;
};

struct BTNodeDescriptor_ {
  uint32_t fLink;
  uint32_t bLink;
  int8_t kind;                  // -1 leaf, 0 index, 1 header, 2 map
  uint8_t height;
  uint16_t numRecords;
  uint16_t reserved;            // never converted
};

struct BTHeaderRecord {
  uint16_t treeDepth;
  uint32_t rootNode;
  uint32_t leafRecords;
  uint32_t firstLeafNode;
  uint32_t lastLeafNode;        // never converted
  uint16_t nodeSize;
  uint16_t maxKeyLength;        // never converted
  uint32_t totalNodes;
  uint32_t freeNodes;
  uint16_t reserved1;
  uint32_t clumpSize;           // never converted
  uint8_t btreeType;
  uint8_t keyCompareType;       // 0xCF case folding, 0xBC binary (HFSX)
  uint32_t attributes;          // never converted
  uint32_t reserved3[16];
};

struct HFSUniStr255_ {
  uint16_t length;
  uint16_t unicode[255];
};

struct HFSPlusCatalogKey_ {
  uint16_t keyLength;
  uint32_t parentID;
  HFSUniStr255_ nodeName;
};

struct HFSPlusExtentKey_ {
  uint16_t keyLength;
  uint8_t forkType;             // 0x00 data, 0xFF resource
  uint8_t pad;
  uint32_t fileID;
  uint32_t startBlock;
};

struct HFSPlusBSDInfo_ {
  uint32_t ownerID;
  uint32_t groupID;
  uint8_t adminFlags;
  uint8_t ownerFlags;
  uint16_t fileMode;
  uint32_t special;             // iNodeNum, linkCount or rawDevice
};

struct Point_ {
  int16_t v;
  int16_t h;
};

struct Rect_ {
  int16_t top;
  int16_t left;
  int16_t bottom;
  int16_t right;
};

struct FolderInfo_ {
  Rect_ windowBounds;
  uint16_t finderFlags;
  Point_ location;
  uint16_t reservedField;
};

struct ExtendedFolderInfo_ {
  Point_ scrollPosition;
  int32_t reserved1;
  uint16_t extendedFinderFlags;
  int16_t reserved2;
  int32_t putAwayFolderID;
};

struct FileInfo_ {
  uint8_t fileType[4];          // four-character code, kept as disk bytes
  uint8_t fileCreator[4];
  uint16_t finderFlags;
  Point_ location;
  uint16_t reservedField;
};

struct ExtendedFileInfo_ {
  int16_t reserved1[4];
  uint16_t extendedFinderFlags;
  int16_t reserved2;
  int32_t putAwayFolderID;
};

struct HFSPlusCatalogFolder_ {
  int16_t recordType;           // 1
  uint16_t flags;
  uint32_t valence;
  uint32_t folderID;
  uint32_t createDate;
  uint32_t contentModDate;
  uint32_t attributeModDate;
  uint32_t accessDate;
  uint32_t backupDate;
  HFSPlusBSDInfo_ permissions;  // never converted
  FolderInfo_ userInfo;         // never converted
  ExtendedFolderInfo_ finderInfo;  // never converted
  uint32_t textEncoding;
  uint32_t reserved;            // never converted
};

struct HFSPlusCatalogFile_ {
  int16_t recordType;           // 2
  uint16_t flags;
  uint32_t reserved1;           // never converted
  uint32_t fileID;
  uint32_t createDate;
  uint32_t contentModDate;
  uint32_t attributeModDate;
  uint32_t accessDate;
  uint32_t backupDate;
  HFSPlusBSDInfo_ permissions;  // never converted
  FileInfo_ userInfo;           // never converted
  ExtendedFileInfo_ finderInfo; // never converted
  uint32_t textEncoding;
  uint32_t reserved2;           // never converted
  HFSPlusForkData_ dataFork;
  HFSPlusForkData_ resourceFork;
};

struct HFSPlusCatalogThread_ {
  int16_t recordType;           // 3 folder thread, 4 file thread
  int16_t reserved;
  uint32_t parentID;
  HFSUniStr255_ nodeName;
};

// One Apple partition map entry (one 512-byte block).
struct PartitionMap {
  uint16_t pmSig;               // 'PM'
  int16_t pmSigPad;
  int32_t pmMapBlkCnt;
  uint32_t pmPyPartStart;
  uint32_t pmPartBlkCnt;
  char pmPartName[32];
  char pmParType[32];
  uint8_t rest[432];            // never converted
};

struct Fdisk_Partition_Table {
  uint8_t bootIndicator;
  uint8_t startHead;
  uint8_t startSector;
  uint8_t startCylinder;
  uint8_t systemID;
  uint8_t endHead;
  uint8_t endSector;
  uint8_t endCylinder;
  uint32_t relativeSector;      // relative to the table's own base
  uint32_t numberOfSectors;
};

struct MasterBootRecord {
  uint8_t bootCode[446];
  Fdisk_Partition_Table partitions[4];
  uint16_t bootSignature;       // 0xAA55 read little-endian
};

struct GUIDPartitionTableHeader {
  uint64_t signature;           // "EFI PART"
  uint32_t revision;
  uint32_t headerSize;
  uint32_t headerCRC32;
  uint32_t reserved;
  uint64_t myLBA;
  uint64_t alternateLBA;
  uint64_t firstUsableLBA;
  uint64_t lastUsableLBA;
  uint8_t diskGUID[16];
  uint64_t partitionEntryLBA;
  uint32_t numberOfPartitionEntries;
  uint32_t sizeOfPartitionEntry;
  uint32_t partitionEntryArrayCRC32;
  uint8_t reserved2[420];
};

struct GUIDPartitionTableEntry {
  uint64_t typeGUIDHigh;        // first half, byte-reversed by conversion
  uint64_t typeGUIDLow;         // second half, byte-reversed by conversion
  uint8_t uniqueGUID[16];
  uint64_t startingLBA;
  uint64_t endingLBA;           // inclusive
  uint8_t attributes[8];
  uint16_t partitionName[36];   // UTF-16LE
};

#pragma pack(pop)

static_assert(sizeof(HFSPlusExtentDescriptor_) == 8);
static_assert(sizeof(HFSPlusExtentRecord_) == 64);
static_assert(sizeof(HFSPlusForkData_) == 80);
static_assert(offsetof(HFSPlusForkData_, clumpSize) == 8 && offsetof(HFSPlusForkData_, extents) == 16);
static_assert(sizeof(VolumeInformationBlock) == 512);
static_assert(offsetof(VolumeInformationBlock, journalInfoBlock) == 12);
static_assert(offsetof(VolumeInformationBlock, blockSize) == 40);
static_assert(offsetof(VolumeInformationBlock, encodingsBitmap) == 72);
static_assert(offsetof(VolumeInformationBlock, finderInfo) == 80);
static_assert(offsetof(VolumeInformationBlock, allocationFile) == 112);
static_assert(offsetof(VolumeInformationBlock, extentsFile) == 192);
static_assert(offsetof(VolumeInformationBlock, catalogFile) == 272);
static_assert(offsetof(VolumeInformationBlock, attributesFile) == 352);
static_assert(offsetof(VolumeInformationBlock, startupFile) == 432);
static_assert(sizeof(MasterDirectoryBlock) == 162);
static_assert(offsetof(MasterDirectoryBlock, drAlBlkSiz) == 20);
static_assert(offsetof(MasterDirectoryBlock, drAlBlSt) == 28);
static_assert(offsetof(MasterDirectoryBlock, nameLength) == 36);
static_assert(offsetof(MasterDirectoryBlock, drVolBkUp) == 64);
static_assert(offsetof(MasterDirectoryBlock, drFndrInfo) == 92);
static_assert(offsetof(MasterDirectoryBlock, drEmbedSigWord) == 124);
static_assert(offsetof(MasterDirectoryBlock, drEmbedExtent) == 126);
static_assert(offsetof(MasterDirectoryBlock, drXTFlSize) == 130);
static_assert(offsetof(MasterDirectoryBlock, drXTExtRec) == 134);
static_assert(offsetof(MasterDirectoryBlock, drCTFlSize) == 146);
static_assert(offsetof(MasterDirectoryBlock, drCTExtRec) == 150);
static_assert(sizeof(BTNodeDescriptor_) == 14);
static_assert(offsetof(BTNodeDescriptor_, kind) == 8 && offsetof(BTNodeDescriptor_, numRecords) == 10);
static_assert(sizeof(BTHeaderRecord) == 106);
static_assert(offsetof(BTHeaderRecord, rootNode) == 2);
static_assert(offsetof(BTHeaderRecord, nodeSize) == 18);
static_assert(offsetof(BTHeaderRecord, totalNodes) == 22);
static_assert(offsetof(BTHeaderRecord, clumpSize) == 32);
static_assert(offsetof(BTHeaderRecord, btreeType) == 36);
static_assert(offsetof(BTHeaderRecord, attributes) == 38);
static_assert(sizeof(HFSUniStr255_) == 512);
static_assert(sizeof(HFSPlusCatalogKey_) == 518);
static_assert(offsetof(HFSPlusCatalogKey_, nodeName) == 6);
static_assert(sizeof(HFSPlusExtentKey_) == 12);
static_assert(offsetof(HFSPlusExtentKey_, fileID) == 4 && offsetof(HFSPlusExtentKey_, startBlock) == 8);
static_assert(sizeof(HFSPlusBSDInfo_) == 16);
static_assert(sizeof(FolderInfo_) == 16 && sizeof(ExtendedFolderInfo_) == 16);
static_assert(sizeof(FileInfo_) == 16 && sizeof(ExtendedFileInfo_) == 16);
static_assert(sizeof(HFSPlusCatalogFolder_) == 88);
static_assert(offsetof(HFSPlusCatalogFolder_, permissions) == 32);
static_assert(offsetof(HFSPlusCatalogFolder_, textEncoding) == 80);
static_assert(sizeof(HFSPlusCatalogFile_) == 248);
static_assert(offsetof(HFSPlusCatalogFile_, fileID) == 8);
static_assert(offsetof(HFSPlusCatalogFile_, userInfo) == 48);
static_assert(offsetof(HFSPlusCatalogFile_, dataFork) == 88);
static_assert(offsetof(HFSPlusCatalogFile_, resourceFork) == 168);
static_assert(sizeof(HFSPlusCatalogThread_) == 520);
static_assert(sizeof(PartitionMap) == 512);
static_assert(offsetof(PartitionMap, pmPartName) == 16 && offsetof(PartitionMap, pmParType) == 48);
static_assert(sizeof(Fdisk_Partition_Table) == 16);
static_assert(sizeof(MasterBootRecord) == 512);
static_assert(offsetof(MasterBootRecord, partitions) == 446 && offsetof(MasterBootRecord, bootSignature) == 510);
static_assert(sizeof(GUIDPartitionTableHeader) == 512);
static_assert(offsetof(GUIDPartitionTableHeader, partitionEntryLBA) == 72);
static_assert(offsetof(GUIDPartitionTableHeader, numberOfPartitionEntries) == 80);
static_assert(offsetof(GUIDPartitionTableHeader, partitionEntryArrayCRC32) == 88);
static_assert(sizeof(GUIDPartitionTableEntry) == 128);
static_assert(offsetof(GUIDPartitionTableEntry, startingLBA) == 32);
static_assert(offsetof(GUIDPartitionTableEntry, partitionName) == 56);

// Signatures and record kinds as host-order numbers.
inline constexpr uint16_t kHFSPlusSigWord = 0x482B;  // 'H+'
inline constexpr uint16_t kHFSXSigWord = 0x4858;     // 'HX'
inline constexpr uint16_t kHFSSigWord = 0x4244;      // 'BD'
inline constexpr uint16_t kPartitionMapSignature = 0x504D;  // 'PM'
inline constexpr uint64_t kGPTSignature = 0x4546492050415254ULL;  // "EFI PART" after conversion
inline constexpr int8_t kBTLeafNode = -1;
inline constexpr int8_t kBTIndexNode = 0;
inline constexpr int8_t kBTHeaderNode = 1;
inline constexpr int8_t kBTMapNode = 2;
inline constexpr int16_t kHFSPlusFolderRecord = 1;
inline constexpr int16_t kHFSPlusFileRecord = 2;
inline constexpr int16_t kHFSPlusFolderThreadRecord = 3;
inline constexpr int16_t kHFSPlusFileThreadRecord = 4;
inline constexpr uint8_t kDataForkType = 0x00;
inline constexpr uint8_t kResourceForkType = 0xFF;

// The conversions, each in place on a record in a buffer.
void convertVIB(VolumeInformationBlock* vib);
void convertMDB(MasterDirectoryBlock* mdb);
void convertBTNodeDesc(BTNodeDescriptor_* desc);
void convertBTHdrRec(BTHeaderRecord* hdr);
void convertHPlusExtRec(HFSPlusExtentRecord_* rec);
void convertHPlusForkData(HFSPlusForkData_* fork);
void convertHPlusExtentKey(HFSPlusExtentKey_* key);
// Unbounded: swaps as many code units as the name length says, so give it only
// keys whose length is already trusted.
void convertHPlusCatalogKey(HFSPlusCatalogKey_* key);
// Bounded: converts key length, parent ID and name length, then refuses (false,
// name left in disk order) a name length over 255.
bool convertHPlusCatalogKeyBounded(HFSPlusCatalogKey_* key);
void convertHPlusCatalogFolder(HFSPlusCatalogFolder_* folder);
void convertHPlusCatalogFile(HFSPlusCatalogFile_* file);
void convertPM(PartitionMap* pm);
void convertMBR(MasterBootRecord* mbr);
void convertGPTHeader(GUIDPartitionTableHeader* hdr);
void convertGPTEntry(GUIDPartitionTableEntry* entry);

// UTF-16 helpers over `length` code units starting at `units` (which may be
// unaligned inside a packed record).
void swapBigUniCharArrayToHost(void* units, int32_t length);
void swapHostUniCharArrayToBig(void* units, int32_t length);
void swapLittleUniCharArrayToHost(void* units, int32_t length);

}  // namespace ambrel
