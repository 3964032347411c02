// A compression attribute and a resource fork from any bytes: a 16-bit
// little-endian attribute length, the attribute, then the fork. Every chunk
// the reader offers is decoded; each ends within its length. The whole input
// is also tried as one coded chunk of every kind.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

#include "compress/Decmpfs.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::vector<uint8_t> out;
  for (auto a : {DecmpfsAlgorithm::Zlib, DecmpfsAlgorithm::Lzvn, DecmpfsAlgorithm::Raw, DecmpfsAlgorithm::Lzfse}) {
    (void)decodeDecmpfsChunk(a, std::span<const uint8_t>(data, size), 4096, out);
    if (out.size() > 4096) std::abort();
  }
  if (size < 2) return 0;
  const size_t attrLength = std::min<size_t>(size - 2, size_t{data[0]} | size_t{data[1]} << 8);
  const std::span<const uint8_t> attribute(data + 2, attrLength);
  const std::vector<uint8_t> fork(data + 2 + attrLength, data + size);
  ForkReader read = [&fork](uint64_t offset, size_t length, uint8_t* o) {
    if (offset > fork.size() || length > fork.size() - offset) return false;
    if (length) std::memcpy(o, fork.data() + offset, length);
    return true;
  };
  std::string why;
  auto reader = DecmpfsReader::open(attribute, read, fork.size(), &why);
  if (!reader) return 0;
  // The fork bounds the chunk count; a few dozen chunks show every path.
  for (size_t i = 0; i < reader->chunkCount() && i < 32; ++i) {
    if (reader->readChunk(i, out) == DecmpfsReader::Chunk::Ok && out.size() != reader->chunkLength(i)) std::abort();
  }
  return 0;
}
