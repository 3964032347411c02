#include "output/Decompress.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "compress/Decmpfs.h"
#include "media/DMedia.h"

namespace ambrel {

namespace {

// One read covers at most this much of a fork.
constexpr size_t kMaxRangeRead = 1u << 20;

}  // namespace

bool readForkRange(const ForkSource& source, int32_t blockSectors, std::span<const Extent> extents,
                   uint64_t logicalSize, uint64_t offset, size_t length, uint8_t* out) {
  if (blockSectors <= 0 || !source.read) return false;
  if (offset > logicalSize || length > logicalSize - offset) return false;
  const uint64_t blockBytes = uint64_t(blockSectors) * kSectorSize;
  std::vector<uint8_t> buffer;
  while (length > 0) {
    uint64_t skip = offset / blockBytes;
    const uint64_t within = offset % blockBytes;
    const Extent* extent = nullptr;
    for (const Extent& e : extents) {
      if (skip < e.blockCount) {
        extent = &e;
        break;
      }
      skip -= e.blockCount;
    }
    if (!extent) return false;
    const uint64_t leftInExtent = (uint64_t{extent->blockCount} - skip) * blockBytes - within;
    const size_t take = static_cast<size_t>(std::min<uint64_t>({length, leftInExtent, kMaxRangeRead}));
    const uint64_t sector =
        source.HPlusVolStart + (uint64_t{extent->startBlock} + skip) * uint64_t(blockSectors) + within / kSectorSize;
    const size_t head = static_cast<size_t>(within % kSectorSize);
    const uint64_t sectors = (head + take + kSectorSize - 1) / kSectorSize;
    buffer.assign(static_cast<size_t>(sectors * kSectorSize), 0);
    if (!source.read(sector, static_cast<int32_t>(sectors), buffer.data())) return false;
    std::memcpy(out, buffer.data() + head, take);
    out += take;
    offset += take;
    length -= take;
  }
  return true;
}

DecompressResult decompressEntry(const ForkSource& source, const HDIR& entry,
                                 const std::function<bool(const uint8_t* data, size_t size)>& sink,
                                 const std::function<bool()>& abort, uint64_t maxBytes) {
  DecompressResult result;
  const std::vector<uint8_t> attribute =
      source.compressionAttribute ? source.compressionAttribute(contentID(entry)) : std::vector<uint8_t>{};
  if (attribute.empty()) {
    result.problem = "its compression attribute could not be read";
    return result;
  }
  const int32_t B = entry.blockSize > 0 ? entry.blockSize : source.blockSize;
  ForkReader rsrc = [&](uint64_t offset, size_t length, uint8_t* out) {
    return readForkRange(source, B, entry.rscExt, entry.compressedSize, offset, length, out);
  };
  std::string why;
  auto reader = DecmpfsReader::open(attribute, rsrc, entry.compressedSize, &why);
  if (!reader) {
    result.problem = why;
    return result;
  }
  // The listing's size and the attribute's must agree, or the attribute is
  // not the one the scan read.
  if (reader->size() != entry.dataSize) {
    result.problem = "its compression attribute changed since the scan";
    return result;
  }
  result.opened = true;
  std::vector<uint8_t> chunk;
  for (size_t i = 0; i < reader->chunkCount() && result.delivered < maxBytes; ++i) {
    if (abort && abort()) {
      result.aborted = true;
      return result;
    }
    std::string detail;
    if (reader->readChunk(i, chunk, &detail) != DecmpfsReader::Chunk::Ok) {
      ++result.badChunks;
      if (result.problem.empty()) result.problem = detail;
      // Zeros keep the chunks after it in place; an attribute's payload is
      // the whole file, and nothing follows it.
      if (!reader->header().inResourceFork) return result;
      chunk.assign(reader->chunkLength(i), 0);
    }
    const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk.size(), maxBytes - result.delivered));
    if (!sink(chunk.data(), n)) {
      result.stopped = true;
      return result;
    }
    result.delivered += n;
  }
  return result;
}

}  // namespace ambrel
