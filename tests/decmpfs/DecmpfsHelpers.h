#pragma once
// Shared pieces of the compressed-file tests: the real payloads made on Macs
// (with their expected output from the same source) and small builders.
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/Endian.h"
#include "compress/Decmpfs.h"
#include "support/TempDir.h"

namespace ambrel::test {

inline std::filesystem::path payloadDir() {
  const auto root = sharedTestData();
  return root.empty() ? root : root / "decmpfs" / "hfsplus-forensic";
}

inline std::vector<uint8_t> payload(const std::string& name) { return readFile(payloadDir() / name); }

// A com.apple.decmpfs value: the 16-byte header, then `body` (odd types).
inline std::vector<uint8_t> decmpfsAttribute(uint32_t type, uint64_t size, const std::vector<uint8_t>& body = {}) {
  std::vector<uint8_t> a(16, 0);
  std::memcpy(a.data(), "fpmc", 4);
  storeLE32(&a[4], type);
  storeLE64(&a[8], size);
  a.insert(a.end(), body.begin(), body.end());
  return a;
}

// A fork reader over bytes in memory.
inline ForkReader memoryFork(const std::vector<uint8_t>& fork) {
  return [&fork](uint64_t offset, size_t length, uint8_t* out) {
    if (offset > fork.size() || length > fork.size() - offset) return false;
    std::memcpy(out, fork.data() + offset, length);
    return true;
  };
}

// Every chunk decoded and joined; `failures` counts chunks that did not decode.
inline std::vector<uint8_t> decodeAll(DecmpfsReader& r, int* failures = nullptr) {
  std::vector<uint8_t> all, chunk;
  if (failures) *failures = 0;
  for (size_t i = 0; i < r.chunkCount(); ++i) {
    if (r.readChunk(i, chunk) == DecmpfsReader::Chunk::Ok) {
      all.insert(all.end(), chunk.begin(), chunk.end());
    } else if (failures) {
      ++*failures;
    }
  }
  return all;
}

}  // namespace ambrel::test
