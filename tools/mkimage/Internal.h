#pragma once
// Pieces shared by the image builder's source files; not part of its API.
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "ImageBuilder.h"

namespace ambrel::mkimage {

// The output image: a sparse file written with positioned writes.
class ImageFile {
 public:
  ImageFile(const std::filesystem::path& path, uint64_t sizeBytes);
  ~ImageFile();
  ImageFile(const ImageFile&) = delete;
  ImageFile& operator=(const ImageFile&) = delete;

  void write(uint64_t offset, const void* data, size_t size);
  void zero(uint64_t offset, size_t size);
  void read(uint64_t offset, void* data, size_t size) const;
  void truncate(uint64_t sizeBytes);
  uint64_t size() const { return size_; }

 private:
  int fd_ = -1;
  uint64_t size_ = 0;
};

// A B-tree laid out from records given in key order. Node numbers: 0 header,
// then the leaves in order, then each index level bottom-up (root last), then
// map nodes.
struct BTreeSource {
  size_t count = 0;
  std::function<size_t(size_t)> leafSize;             // key + data bytes of record i
  std::function<size_t(size_t, uint8_t*)> leafRecord; // writes record i
  std::function<size_t(size_t)> indexKeySize;         // key bytes of record i in an index record
  std::function<size_t(size_t, uint8_t*)> indexKey;
};

struct BTreeParams {
  uint32_t nodeSize = 4096;
  uint16_t maxKeyLength = 516;
  uint8_t btreeType = 0;
  uint8_t keyCompareType = 0;
  uint32_t attributes = 0;
  uint32_t clumpSize = 0;
};

struct BTreePlan {
  struct PlannedNode {
    uint32_t number = 0;
    uint32_t first = 0, count = 0;  // leaves: records; index: nodes of the level below
    uint32_t firstRecord = 0;       // first leaf record below this node
  };
  uint32_t nodeSize = 0;
  std::vector<std::vector<PlannedNode>> levels;  // [0] leaves
  uint32_t usedNodes = 1;            // header + leaves + index nodes (no map nodes)
  uint32_t depth() const { return static_cast<uint32_t>(levels.size()); }
  uint32_t rootNode() const { return levels.empty() ? 0 : levels.back().front().number; }
};

BTreePlan planBTree(const BTreeSource& source, uint32_t nodeSize);

// Inline attribute records, given in key order (file ID, name, start block 0).
struct AttrRecord {
  uint32_t fileID = 0;
  std::u16string name;
  const std::vector<uint8_t>* value = nullptr;
};
BTreeSource attributesSource(const std::vector<AttrRecord>& records);
// Sorts records into the attributes B-tree's key order.
void sortAttributes(std::vector<AttrRecord>& records);
// Map nodes needed beyond the header's own map record for a file of totalNodes.
uint32_t mapNodesFor(uint32_t totalNodes, uint32_t nodeSize);
// Renders every used node; free nodes are left to the caller (zeroed).
void writeBTree(const BTreePlan& plan, const BTreeSource& source, const BTreeParams& params,
                uint32_t totalNodes, uint32_t leafRecords,
                const std::function<void(uint32_t node, const uint8_t* bytes)>& sink,
                std::vector<NodeLayout>* nodesOut);

// Names.
std::u16string utf8ToUtf16(const std::string& s);
std::string utf16ToUtf8(const std::u16string& s);
// HFS+ case-folded form used for ordering (ASCII, Latin-1, Greek, Cyrillic).
std::u16string foldCase(const std::u16string& s);
int compareUnits(const std::u16string& a, const std::u16string& b);

uint32_t crc32Of(const uint8_t* data, size_t size);
uint64_t splitmix64(uint64_t& state);

class VolumeBuilder;
// Plans a volume (names, catalog and extents trees, block needs) once; writes
// it at a given place and size.
class VolumeBuilder {
 public:
  explicit VolumeBuilder(const VolumeSpec& spec);
  ~VolumeBuilder();
  VolumeBuilder(const VolumeBuilder&) = delete;
  VolumeBuilder& operator=(const VolumeBuilder&) = delete;

  // Smallest number of sectors the volume (with its wrapper) needs.
  uint64_t minimumSectors() const;
  VolumeLayout write(ImageFile& image, uint64_t startSector, uint64_t sectors);

 private:
  struct Impl;
  Impl* impl_;
};

}  // namespace ambrel::mkimage
