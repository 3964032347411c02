#pragma once
// The content of a compressed entry, decoded chunk by chunk for saving and
// preview: the compression attribute from the source, the coded bytes from
// the attribute or from the resource fork through the entry's extents.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "output/Saver.h"
#include "tree/HDIR.h"

namespace ambrel {

// Reads [offset, offset + length) of a fork of logicalSize bytes laid out in
// `extents` of blockSectors-sector blocks; false when it lies outside the
// fork or a read fails.
bool readForkRange(const ForkSource& source, int32_t blockSectors, std::span<const Extent> extents,
                   uint64_t logicalSize, uint64_t offset, size_t length, uint8_t* out);

struct DecompressResult {
  bool opened = false;      // the attribute and chunk table could be used
  bool aborted = false;
  bool stopped = false;     // the sink asked to stop
  uint32_t badChunks = 0;   // handed on as zeros
  uint64_t delivered = 0;   // bytes given to the sink
  std::string problem;      // the first thing that went wrong
};

// Hands the entry's uncompressed content to `sink` in order, at most
// maxBytes of it. A resource-fork chunk that cannot be read or decoded is
// handed on as zeros of its length, so that the rest keeps its place, and
// counted; an attribute payload that cannot be decoded gives nothing.
// `abort` is tested before every chunk.
DecompressResult decompressEntry(const ForkSource& source, const HDIR& entry,
                                 const std::function<bool(const uint8_t* data, size_t size)>& sink,
                                 const std::function<bool()>& abort, uint64_t maxBytes = UINT64_MAX);

}  // namespace ambrel
