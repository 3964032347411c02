#include "compress/Decmpfs.h"

#include <zlib.h>

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "base/Endian.h"
#include "compress/Lzfse.h"
#include "compress/Lzvn.h"

namespace ambrel {

namespace {

// Resource fork of a zlib-compressed file: the classic resource fork header
// (big-endian data offset, map offset, data length, map length); at the data
// offset the one resource's big-endian length, then its body: a little-endian
// chunk count and (offset, length) pairs, offsets from the body's start.
constexpr size_t kResourceForkHeaderSize = 16;

DecodeStatus inflateExactly(std::span<const uint8_t> coded, size_t expected, std::vector<uint8_t>& out) {
  out.assign(expected, 0);
  z_stream z{};
  if (inflateInit(&z) != Z_OK) return DecodeStatus::Corrupt;
  // zlib takes non-const input and 32-bit lengths; a chunk is far smaller.
  z.next_in = const_cast<Bytef*>(coded.data());
  z.avail_in = static_cast<uInt>(std::min<size_t>(coded.size(), UINT32_MAX));
  z.next_out = out.data();
  z.avail_out = static_cast<uInt>(expected);
  DecodeStatus status = DecodeStatus::Ok;
  const int r = inflate(&z, Z_FINISH);
  if (r == Z_BUF_ERROR || r == Z_OK) {
    if (z.avail_out != 0) {
      status = DecodeStatus::Truncated;  // the input ran out first
    } else {
      // Output full before the stream's end: only the trailer may be left.
      uint8_t probe = 0;
      z.next_out = &probe;
      z.avail_out = 1;
      const int more = inflate(&z, Z_FINISH);
      if (z.avail_out == 0) status = DecodeStatus::TooLarge;
      else if (more != Z_STREAM_END) status = more == Z_DATA_ERROR ? DecodeStatus::Corrupt : DecodeStatus::Truncated;
      z.avail_out = 0;
    }
  } else if (r != Z_STREAM_END) {
    status = DecodeStatus::Corrupt;
  }
  const size_t produced = expected - z.avail_out;
  inflateEnd(&z);
  if (status == DecodeStatus::Ok && z.total_out != expected) status = DecodeStatus::Truncated;
  if (status != DecodeStatus::Ok) out.resize(std::min(produced, expected));
  return status;
}

DecodeStatus storedCopy(std::span<const uint8_t> coded, size_t expected, std::vector<uint8_t>& out) {
  if (coded.size() - 1 < expected) return DecodeStatus::Truncated;
  out.assign(coded.begin() + 1, coded.begin() + 1 + static_cast<std::ptrdiff_t>(expected));
  return DecodeStatus::Ok;
}

DecodeStatus exactly(DecodeStatus s, const std::vector<uint8_t>& out, size_t expected) {
  if (s != DecodeStatus::Ok) return s;
  return out.size() == expected ? DecodeStatus::Ok : DecodeStatus::Truncated;
}

}  // namespace

std::optional<DecmpfsHeader> parseDecmpfsHeader(std::span<const uint8_t> attribute) {
  if (attribute.size() < kDecmpfsHeaderSize || loadLE32(attribute.data()) != kDecmpfsMagic) return std::nullopt;
  DecmpfsHeader h;
  h.type = loadLE32(&attribute[4]);
  h.uncompressedSize = loadLE64(&attribute[8]);
  switch (h.type) {
    case 3: case 4: h.algorithm = DecmpfsAlgorithm::Zlib; break;
    case 7: case 8: h.algorithm = DecmpfsAlgorithm::Lzvn; break;
    case 9: case 10: h.algorithm = DecmpfsAlgorithm::Raw; break;
    case 11: case 12: h.algorithm = DecmpfsAlgorithm::Lzfse; break;
    default: return std::nullopt;
  }
  h.inResourceFork = h.type % 2 == 0;
  if (h.uncompressedSize > kMaxDecmpfsSize) return std::nullopt;
  return h;
}

DecodeStatus decodeDecmpfsChunk(DecmpfsAlgorithm algorithm, std::span<const uint8_t> coded, size_t expected,
                                std::vector<uint8_t>& out) {
  out.clear();
  if (expected == 0) return DecodeStatus::Ok;
  if (coded.empty()) return DecodeStatus::Truncated;
  const uint8_t first = coded[0];
  switch (algorithm) {
    case DecmpfsAlgorithm::Zlib:
      if ((first & 0x0F) == 0x0F) return storedCopy(coded, expected, out);
      return inflateExactly(coded, expected, out);
    case DecmpfsAlgorithm::Lzvn:
      if (first == 0x06) return storedCopy(coded, expected, out);
      out.reserve(expected);
      return exactly(lzvnDecode(coded, out, expected), out, expected);
    case DecmpfsAlgorithm::Raw:
      if (first == 0xCC) return storedCopy(coded, expected, out);
      return DecodeStatus::Corrupt;
    case DecmpfsAlgorithm::Lzfse:
      if (first == 0xCC || first == 0x06) return storedCopy(coded, expected, out);
      out.reserve(expected);
      return exactly(lzfseDecode(coded, out, expected), out, expected);
  }
  return DecodeStatus::Corrupt;
}

std::optional<DecmpfsReader> DecmpfsReader::open(std::span<const uint8_t> attribute, ForkReader rsrc,
                                                 uint64_t rsrcSize, std::string* why) {
  auto fail = [&](std::string text) -> std::optional<DecmpfsReader> {
    if (why) *why = std::move(text);
    return std::nullopt;
  };
  const auto header = parseDecmpfsHeader(attribute);
  if (!header) {
    if (attribute.size() >= 8 && loadLE32(attribute.data()) == kDecmpfsMagic)
      return fail(fmt::format("compression type {} is not supported", loadLE32(&attribute[4])));
    return fail("the compression attribute is not valid");
  }
  DecmpfsReader r;
  r.header_ = *header;
  const uint64_t size = header->uncompressedSize;
  if (!header->inResourceFork) {
    if (size > kMaxInlineDecodedSize) return fail("the compressed attribute claims an implausible size");
    r.inlinePayload_.assign(attribute.begin() + kDecmpfsHeaderSize, attribute.end());
    if (size > 0) r.chunks_.push_back({0, static_cast<uint32_t>(r.inlinePayload_.size()), true});
    return r;
  }

  if (!rsrc) return fail("the resource fork holding the compressed data cannot be read");
  r.rsrc_ = std::move(rsrc);
  const uint64_t count = (size + kDecmpfsChunkSize - 1) / kDecmpfsChunkSize;
  if (count == 0) return r;
  // Every chunk needs a table entry of at least four bytes in the fork.
  if (count > rsrcSize / 4) return fail("the compressed data is larger than its resource fork");
  auto inFork = [&](uint64_t offset, uint64_t length) { return offset <= rsrcSize && length <= rsrcSize - offset; };
  r.chunks_.resize(static_cast<size_t>(count));

  if (header->algorithm == DecmpfsAlgorithm::Zlib) {
    uint8_t head[kResourceForkHeaderSize];
    if (rsrcSize < sizeof head || !r.rsrc_(0, sizeof head, head))
      return fail("the resource fork header cannot be read");
    const uint64_t dataOffset = loadBE32(head);
    uint8_t body[8];
    if (!inFork(dataOffset, 8) || !r.rsrc_(dataOffset, 8, body)) return fail("the chunk table cannot be read");
    const uint64_t base = dataOffset + 4;
    const uint64_t listed = loadLE32(body + 4);
    const uint64_t present = std::min(listed, count);
    std::vector<uint8_t> table(static_cast<size_t>(present * 8));
    if (!inFork(base + 4, table.size()) || (!table.empty() && !r.rsrc_(base + 4, table.size(), table.data())))
      return fail("the chunk table cannot be read");
    for (size_t i = 0; i < r.chunks_.size(); ++i) {
      Coded& c = r.chunks_[i];
      if (i >= present) {
        c.present = false;
        continue;
      }
      c.offset = base + loadLE32(&table[8 * i]);
      c.length = loadLE32(&table[8 * i + 4]);
      c.present = inFork(c.offset, c.length);
    }
    return r;
  }

  // LZVN, LZFSE and uncompressed chunks: a table of count + 1 little-endian
  // offsets, the first being the table's own size, each chunk running to the
  // next offset.
  std::vector<uint8_t> table(static_cast<size_t>((count + 1) * 4));
  if (!inFork(0, table.size()) || !r.rsrc_(0, table.size(), table.data())) return fail("the chunk table cannot be read");
  if (loadLE32(table.data()) < table.size()) return fail("the chunk table is shorter than the file needs");
  for (size_t i = 0; i < r.chunks_.size(); ++i) {
    const uint64_t from = loadLE32(&table[4 * i]);
    const uint64_t to = loadLE32(&table[4 * (i + 1)]);
    Coded& c = r.chunks_[i];
    c.offset = from;
    c.length = to >= from ? static_cast<uint32_t>(to - from) : 0;
    c.present = to >= from && inFork(from, to - from);
  }
  return r;
}

uint64_t DecmpfsReader::chunkOffset(size_t index) const {
  return header_.inResourceFork ? uint64_t{index} * kDecmpfsChunkSize : 0;
}

size_t DecmpfsReader::chunkLength(size_t index) const {
  if (!header_.inResourceFork) return static_cast<size_t>(header_.uncompressedSize);
  const uint64_t from = chunkOffset(index);
  return static_cast<size_t>(std::min<uint64_t>(kDecmpfsChunkSize, header_.uncompressedSize - from));
}

DecmpfsReader::Chunk DecmpfsReader::readChunk(size_t index, std::vector<uint8_t>& out, std::string* detail) {
  out.clear();
  auto damaged = [&](std::string text) {
    if (detail) *detail = std::move(text);
    return Chunk::Damaged;
  };
  if (index >= chunks_.size()) return damaged("no such chunk");
  const Coded& c = chunks_[index];
  const size_t expected = chunkLength(index);
  if (!c.present) return damaged(fmt::format("chunk {} lies outside its resource fork", index));
  std::span<const uint8_t> coded;
  if (!header_.inResourceFork) {
    coded = inlinePayload_;
  } else {
    if (c.length > kMaxCodedChunkSize) return damaged(fmt::format("chunk {} claims {} coded bytes", index, c.length));
    coded_.resize(c.length);
    if (c.length > 0 && !rsrc_(c.offset, c.length, coded_.data())) {
      if (detail) *detail = fmt::format("chunk {} could not be read", index);
      return Chunk::ReadFailed;
    }
    coded = coded_;
  }
  const DecodeStatus s = decodeDecmpfsChunk(header_.algorithm, coded, expected, out);
  if (s != DecodeStatus::Ok) {
    out.clear();
    return damaged(fmt::format("chunk {}: {}", index, decodeStatusText(s)));
  }
  return Chunk::Ok;
}

}  // namespace ambrel
