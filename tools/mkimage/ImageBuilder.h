#pragma once
// Builds raw drive images with known content: partition tables (none, MBR with
// extended partitions, GPT, Apple partition map), HFS+/HFSX volumes (optionally
// journaled or inside an HFS wrapper), deleted entries kept only in journal
// node copies, raw payloads in free space, and damage of many kinds.
//
// A description (DriveSpec) goes in, a raw image file and a DriveLayout come
// out; the layout says where every volume, catalog node and file extent landed
// so that tests can check what the engine finds against it.
#include <cstdint>
#include <filesystem>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace ambrel::mkimage {

// Any description that cannot be built (sizes too small, bad names, ...).
struct BuildError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// Seconds since 1 January 1904 (GMT), as HFS+ keeps dates.
using HfsDate = uint32_t;
inline constexpr HfsDate kUnixEpochAsHfs = 2082844800u;
inline HfsDate hfsDateFromUnix(int64_t unixSeconds) { return static_cast<HfsDate>(unixSeconds + kUnixEpochAsHfs); }

// An extended attribute kept inline in the attributes B-tree.
struct XattrSpec {
  std::string name;                // ASCII
  std::vector<uint8_t> value;      // must fit one attributes node
};

struct EntrySpec {
  std::string name;                // UTF-8; stored as given (give decomposed Unicode)
  bool folder = false;
  std::vector<EntrySpec> children; // folders only

  // Data fork: explicit bytes, or `dataSize` bytes generated from the file's seed.
  std::optional<std::vector<uint8_t>> data;
  uint64_t dataSize = 0;
  std::optional<std::vector<uint8_t>> rsrc;
  uint64_t rsrcSize = 0;
  bool sparse = false;             // forks of `dataSize`/`rsrcSize` left unwritten (zeros): huge files cheaply
  uint32_t dataFragments = 1;      // extents of the data fork (gaps between them)
  uint32_t rsrcFragments = 1;

  std::optional<HfsDate> created, modified;
  char fileType[4] = {0, 0, 0, 0};
  char creator[4] = {0, 0, 0, 0};
  uint16_t finderFlags = 0;
  uint16_t mode = 0;               // permission bits; 0: 0644 files, 0755 folders
  uint32_t uid = 501, gid = 20;
  // Extended attributes (live entries only), and the BSD owner flag that
  // marks a compressed file (its content then described by a
  // "com.apple.decmpfs" attribute given here, with the coded bytes in it or
  // in the resource fork).
  std::vector<XattrSpec> xattrs;
  bool compressed = false;

  // Present in the journal's old catalog node copies (and old-node copies in
  // free space) but not in the live catalog; its blocks are free but still
  // hold its data. A deleted folder's whole subtree is deleted.
  bool deleted = false;
  // A deleted entry whose records no old node copy keeps: its children are
  // then found without their parent.
  bool inOldNodes = true;

  uint64_t dataLength() const { return data ? data->size() : dataSize; }
  uint64_t rsrcLength() const { return rsrc ? rsrc->size() : rsrcSize; }
};

// A generated tree of `files` files over `folders` folders for scale, with
// varied names (spaces, Unicode, slashes, colons; case-only duplicates on HFSX).
struct GenerateSpec {
  uint32_t files = 0;
  uint32_t folders = 0;
  uint64_t seed = 1;
  uint64_t minSize = 0;
  uint64_t maxSize = 4096;
  bool variedNames = true;
};

// Bytes written into unallocated blocks of a volume (for carving tests).
struct PayloadSpec {
  std::optional<std::vector<uint8_t>> bytes;
  uint64_t size = 0;               // generated from `seed` when no bytes are given
  uint64_t seed = 1;
};

struct LeafChainDamage {
  enum class Mode { Zero, IntoIndex, Loop } mode = Mode::Zero;
  int32_t leaf = -1;               // position in the leaf chain; -1: the middle one
};

struct VolumeDamage {
  enum class Header { Intact, Zeroed, Corrupted } primaryHeader = Header::Intact;
  Header alternateHeader = Header::Intact;
  bool catalogHeaderCorrupted = false;
  bool extentsHeaderCorrupted = false;  // the extents B-tree's header node, as the catalog's
  bool catalogRootCorrupted = false;    // the catalog's root node filled with noise
  std::optional<LeafChainDamage> leafChain;
  uint32_t overwriteNodes = 0;     // random catalog nodes (not the header) overwritten
  uint32_t overwriteLeafPercent = 0;  // this share of the catalog's leaves (rounded up) overwritten
  uint64_t overwriteSeed = 1;
  uint32_t oldNodeCopies = 0;      // catalog leaf node copies written into free blocks
  uint64_t zeroFirstBytes = 0;     // the volume's first bytes zeroed (headers, bitmap, whatever lies there)
};

struct VolumeSpec {
  std::string name = "Untitled";
  bool hfsx = false;               // HFSX: 'HX', version 5, binary name order
  uint32_t blockSize = 4096;       // 512 ... 8192
  uint32_t nodeSize = 8192;        // catalog node size, 4096 or 8192
  uint32_t extentsNodeSize = 4096;
  uint64_t sizeBytes = 0;          // 0: just large enough, with some free space
  bool journal = false;
  uint64_t journalSize = 0;        // 0: chosen from what it must hold
  bool wrapper = false;            // embed in a classic HFS wrapper
  uint32_t catalogExtents = 1;     // > 8 puts the catalog's own extents in the overflow file
  HfsDate created = hfsDateFromUnix(1700000000);
  uint64_t seed = 1;               // generated content and volume identifier
  std::vector<EntrySpec> root;
  std::optional<GenerateSpec> generate;
  std::vector<PayloadSpec> freePayloads;
  VolumeDamage damage;
};

enum class TableKind { None, MBR, GPT, APM };

struct PartitionSpec {
  enum class Kind { HFSPlus, HFSX, Free, Other } kind = Kind::HFSPlus;
  std::string name;                // GPT/APM name; volume name when empty
  uint64_t startSector = 0;        // 0: placed after the previous one
  uint64_t sizeSectors = 0;        // 0: the volume's size
  bool logical = false;            // MBR: inside the extended partition
  uint8_t mbrType = 0;             // 0: 0xAF for HFS kinds, 0x83 for Other
  std::string apmType;             // empty: from the kind
  std::optional<VolumeSpec> volume; // HFS kinds
};

struct DriveSpec {
  TableKind table = TableKind::GPT;
  uint64_t sizeBytes = 0;          // 0: just large enough
  uint8_t extendedType = 0x05;     // MBR extended partition: 0x05, 0x0F or 0x85
  std::vector<PartitionSpec> partitions;
  std::optional<VolumeSpec> volume; // TableKind::None: a bare volume at sector 0
  bool wipePartitionTable = false;
  uint64_t truncateToBytes = 0;    // 0: not truncated
};

struct ExtentLayout {
  uint32_t startBlock = 0;
  uint32_t blockCount = 0;
  bool operator==(const ExtentLayout&) const = default;
};

struct FileLayout {
  std::string path;                // "/"-joined names; a "/" inside a name shows as ":"
  std::string name;                // the name as stored (UTF-8)
  uint32_t cnid = 0, parentID = 0;
  bool folder = false;
  bool deleted = false;
  uint64_t dataSize = 0, rsrcSize = 0;
  std::vector<ExtentLayout> dataExtents, rsrcExtents;
  uint32_t valence = 0;            // folders: children in the live catalog
  HfsDate created = 0, modified = 0;
  // Content generated by generatedBytes(seed, size) when not given explicitly.
  bool generatedData = false, generatedRsrc = false;
  bool sparse = false;             // forks read as zeros
  uint64_t dataSeed = 0, rsrcSeed = 0;
  // Live catalog leaves holding its record and its thread record (0: none).
  uint32_t recordNode = 0, threadNode = 0;
};

struct NodeLayout {
  uint32_t node = 0;
  int8_t kind = 0;                 // -1 leaf, 0 index, 1 header, 2 map
  uint8_t height = 0;
  uint16_t numRecords = 0;
  uint64_t sector = 0;             // absolute drive sector of its first byte
};

struct BTreeLayout {
  uint32_t nodeSize = 0;
  uint32_t depth = 0, rootNode = 0, firstLeafNode = 0, lastLeafNode = 0;
  uint32_t leafRecords = 0, totalNodes = 0, freeNodes = 0;
  std::vector<ExtentLayout> extents;  // every extent of the file, in file order
  std::vector<NodeLayout> nodes;      // used nodes, by node number
};

struct PayloadLayout {
  uint64_t sector = 0;             // absolute drive sector
  uint64_t size = 0;
  uint32_t startBlock = 0, blockCount = 0;
};

struct VolumeLayout {
  std::string name;
  bool hfsx = false;
  bool wrapped = false;
  uint64_t startSector = 0;        // partition (or wrapper) start on the drive
  uint64_t sizeSectors = 0;
  uint64_t HPlusVolStart = 0;      // absolute sector of allocation block 0
  uint32_t blockSize = 0;          // bytes
  uint32_t totalBlocks = 0, freeBlocks = 0;
  uint32_t fileCount = 0, folderCount = 0, nextCatalogID = 0;
  std::vector<ExtentLayout> allocationExtents, extentsFileExtents, attributesExtents;
  BTreeLayout catalog, extentsTree;
  // Journal: info block (allocation block), byte offset and size from the volume start.
  uint32_t journalInfoBlock = 0;
  uint64_t journalStart = 0, journalSize = 0;
  std::vector<uint64_t> journalNodeCopySectors;  // first sector of each old leaf node image
  std::vector<uint64_t> freeSpaceNodeCopySectors;
  std::vector<PayloadLayout> payloads;
  std::vector<FileLayout> entries;  // root first, then every folder and file (deleted too)
  std::vector<uint32_t> overwrittenNodes;
  uint32_t brokenLeaf = 0;         // node whose forward link was damaged, 0 if none
  uint64_t alternateHeaderSector = 0;

  const FileLayout* find(const std::string& path) const;
  uint64_t blockToSector(uint32_t block) const { return HPlusVolStart + uint64_t(block) * (blockSize / 512); }
};

struct PartitionLayout {
  uint64_t startSector = 0, sizeSectors = 0;
  std::string name, type;          // type: "hfs+", "hfsx", "free", "other"
  bool logical = false;
  uint64_t tableSector = 0;        // MBR/EBR sector holding its entry
  std::optional<VolumeLayout> volume;
};

struct DriveLayout {
  TableKind table = TableKind::None;
  uint64_t sizeBytes = 0;          // after truncation
  std::vector<PartitionLayout> partitions;  // table order (MBR: primaries, then logicals)
  std::vector<uint64_t> ebrSectors;
  std::optional<VolumeLayout> volume;       // TableKind::None
};

// Writes the image (replacing `out`) and reports where everything landed.
DriveLayout buildImage(const DriveSpec& spec, const std::filesystem::path& out);

// Deterministic content of generated forks and payloads.
void generatedBytes(uint64_t seed, uint64_t offset, uint8_t* out, size_t size);
std::vector<uint8_t> generatedBytes(uint64_t seed, uint64_t size);

// The description file (JSON); relative "file" paths are taken from baseDir.
DriveSpec parseDescription(const std::string& json, const std::filesystem::path& baseDir);
DriveSpec loadDescription(const std::filesystem::path& file);
// A JSON summary of a layout (what ambrel-mkimage --layout prints).
std::string layoutToJson(const DriveLayout& layout);

// The demo drive of `make demo`: GPT, a journaled HFS+ volume with a small
// realistic tree, deleted files, payloads in free space, and an HFSX volume.
DriveSpec demoDrive();

}  // namespace ambrel::mkimage
