// An attributes B-tree file from any bytes: the first byte picks the node
// size, the rest are the nodes (node 0 the header). Every record of every
// node is parsed, and look-ups walk the tree; all of it bounded.
#include <cstdint>
#include <cstring>
#include <span>
#include <vector>

#include "hfs/AttributesTree.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  static constexpr uint32_t kSizes[4] = {512, 1024, 4096, 8192};
  const uint32_t nodeSize = kSizes[data[0] % 4];
  const std::vector<uint8_t> file(data + 1, data + size);
  const size_t nodes = file.size() / nodeSize;
  for (size_t n = 0; n < nodes; ++n) {
    const std::span<const uint8_t> node(file.data() + n * nodeSize, nodeSize);
    for (size_t i = 0; i < 512; ++i)
      if (!attributeRecordAt(node, nodeSize, i) && i > 64) break;
  }
  if (nodes == 0) return 0;
  auto header = AttributesTree::headerOf(std::span<const uint8_t>(file.data(), nodeSize));
  if (!header) return 0;
  // The header's own node size must match the one the nodes were cut at.
  if (header->nodeSize != nodeSize) return 0;
  AttributesTree tree(*header, [&](uint32_t number, std::vector<uint8_t>& bytes) {
    if (number >= nodes) return false;
    bytes.assign(file.begin() + number * nodeSize, file.begin() + (number + 1) * nodeSize);
    return true;
  });
  std::vector<uint8_t> node;
  for (uint32_t id : {1u, 16u, 19u, 20u, 0xFFFFFFFFu}) {
    (void)tree.find(id, u"com.apple.decmpfs", 0, node);
    std::vector<std::vector<uint8_t>> held;
    (void)tree.recordsOf(id, held);
  }
  return 0;
}
