#pragma once
// HFS+ compressed files. Such a file keeps an empty data fork; its content is
// described by the "com.apple.decmpfs" extended attribute: a 16-byte header
// (magic "fpmc", compression type, uncompressed size, all little-endian) and,
// for the odd types, the compressed bytes right after it. The even types keep
// them in the resource fork, in independently coded chunks of 64 KiB of
// output behind a chunk table.
//
//   type 3/4  zlib (a first byte with low nibble 0xF: stored as is)
//   type 7/8  LZVN (first byte 0x06: stored as is)
//   type 9/10 uncompressed behind a 0xCC marker
//   type 11/12 LZFSE (first byte 0xCC or 0x06: stored as is)
//
// Nothing here reads a drive: the resource fork comes through a callback, so
// the same code is unit-tested and fuzzed from bytes.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "compress/Decode.h"

namespace ambrel {

inline constexpr const char* kDecmpfsAttributeName = "com.apple.decmpfs";
inline constexpr uint32_t kDecmpfsMagic = 0x636d7066;  // "fpmc" on disk
inline constexpr size_t kDecmpfsHeaderSize = 16;
inline constexpr size_t kDecmpfsChunkSize = 65536;
// The BSD owner flag (UF_COMPRESSED) of a catalog file record that marks it.
inline constexpr uint8_t kCompressedOwnerFlag = 0x20;
// Larger files are left out, like uncompressed forks of 4 GiB and more.
inline constexpr uint64_t kMaxDecmpfsSize = (uint64_t{1} << 32) - 1;
// An attribute's own payload is decoded in one piece; a payload that claims
// more than this is refused rather than given the memory.
inline constexpr uint64_t kMaxInlineDecodedSize = 64ULL << 20;
// A resource-fork chunk of 64 KiB of output is never coded larger than this.
inline constexpr uint32_t kMaxCodedChunkSize = 2 * kDecmpfsChunkSize + 1024;

enum class DecmpfsAlgorithm { Zlib, Lzvn, Raw, Lzfse };

struct DecmpfsHeader {
  uint32_t type = 0;
  uint64_t uncompressedSize = 0;
  DecmpfsAlgorithm algorithm = DecmpfsAlgorithm::Raw;
  bool inResourceFork = false;
};

// The header of an attribute value; nullopt for a short value, another magic,
// a type we do not decode (such as 1, 5 or the LZBitmap types) or a size
// over kMaxDecmpfsSize.
std::optional<DecmpfsHeader> parseDecmpfsHeader(std::span<const uint8_t> attribute);

// Decodes one coded piece (an attribute payload or one resource-fork chunk)
// that must give exactly `expected` bytes, into `out` (replaced).
DecodeStatus decodeDecmpfsChunk(DecmpfsAlgorithm algorithm, std::span<const uint8_t> coded, size_t expected,
                                std::vector<uint8_t>& out);

// Reads `length` bytes at `offset` of the resource fork; false when they
// could not all be read.
using ForkReader = std::function<bool(uint64_t offset, size_t length, uint8_t* out)>;

// A compressed file opened for reading: its chunks, each decoded on its own.
class DecmpfsReader {
 public:
  enum class Chunk { Ok, ReadFailed, Damaged };

  // The attribute value (header and, for odd types, the payload) and, for
  // even types, the resource fork of rsrcSize bytes. nullopt with `why` set
  // when the header or the chunk table cannot be used.
  static std::optional<DecmpfsReader> open(std::span<const uint8_t> attribute, ForkReader rsrc, uint64_t rsrcSize,
                                           std::string* why);

  const DecmpfsHeader& header() const { return header_; }
  uint64_t size() const { return header_.uncompressedSize; }
  size_t chunkCount() const { return chunks_.size(); }
  uint64_t chunkOffset(size_t index) const;
  size_t chunkLength(size_t index) const;

  // Chunk `index` decoded into `out` (exactly chunkLength bytes on Ok).
  // `detail` tells why a chunk failed.
  Chunk readChunk(size_t index, std::vector<uint8_t>& out, std::string* detail = nullptr);

 private:
  struct Coded {
    uint64_t offset = 0;  // in the resource fork, or in the attribute payload
    uint32_t length = 0;
    bool present = true;  // false: the table has no entry for it
  };
  DecmpfsHeader header_;
  std::vector<uint8_t> inlinePayload_;
  ForkReader rsrc_;
  std::vector<Coded> chunks_;
  std::vector<uint8_t> coded_;
};

}  // namespace ambrel
