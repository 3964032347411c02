// The LZVN, LZFSE and zlib decoding of compressed files: real payloads made on
// Macs against their expected output from the same source, hand-made streams
// for every opcode and block kind, and damaged input that must stay bounded.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "DecmpfsHelpers.h"
#include "compress/Lzfse.h"
#include "compress/Lzvn.h"

namespace ambrel {
namespace {

using test::decmpfsAttribute;
using test::decodeAll;
using test::memoryFork;
using test::payload;

std::vector<uint8_t> bytes(const std::string& s) { return {s.begin(), s.end()}; }
std::string text(const std::vector<uint8_t>& v) { return {v.begin(), v.end()}; }

const std::vector<uint8_t> kEnd = {0x06, 0, 0, 0, 0, 0, 0, 0};

// One stream using every LZVN opcode; the expected text follows each step:
// literals, a distance from the opcode, the previous distance, overlapping
// matches, a nop and the end.
std::vector<uint8_t> everyOpcodeStream() {
  std::vector<uint8_t> s = {0xE3, 'a', 'b', 'c',  // 3 literals: abc
                            0x40, 0x03, 'd',      // small distance: L1 M3 D3 -> abcd bcd
                            0x4E, 'e',            // previous distance: L1 M4 -> e cdec
                            0xF2,                 // small match M2 -> de
                            0xF0, 0x00,           // large match M16 -> cdecdecdecdecdec
                            0xA0, 0x2A, 0x00,     // medium distance: M5 D10
                            0x07, 0x14, 0x00,     // large distance: M3 D20
                            0x0E,                 // nop
                            0xE0, 0x00};          // 16 literals
  const std::string tail = "ABCDEFGHIJKLMNOP";
  s.insert(s.end(), tail.begin(), tail.end());
  s.insert(s.end(), kEnd.begin(), kEnd.end());
  return s;
}
const std::string kEveryOpcodeText = "abcdbcdecdecdecdecdecdecdecdeccdecddecABCDEFGHIJKLMNOP";

TEST(Lzvn, EveryOpcodeDecodesAndTheEndLeavesTrailingBytes) {
  auto s = everyOpcodeStream();
  s.push_back(0xAB);  // padding after the end, as real resource forks have
  std::vector<uint8_t> out;
  size_t consumed = 0;
  ASSERT_EQ(lzvnDecode(s, out, 1000, &consumed), DecodeStatus::Ok);
  EXPECT_EQ(text(out), kEveryOpcodeText);
  EXPECT_EQ(consumed, s.size() - 1 - 7);
}

TEST(Lzvn, DamagedStreamsAreRefusedWithinTheirBounds) {
  std::vector<uint8_t> out;
  // Undefined opcodes.
  for (uint8_t op : {0x1E, 0x3E, 0x70, 0x7F, 0xD0, 0xDF}) {
    out.clear();
    EXPECT_EQ(lzvnDecode(std::vector<uint8_t>{op, 0, 0, 0}, out, 100), DecodeStatus::Corrupt) << int(op);
  }
  // A match before anything was written, and one reaching before the start.
  out.clear();
  EXPECT_EQ(lzvnDecode(std::vector<uint8_t>{0xF3}, out, 100), DecodeStatus::Corrupt);
  out.clear();
  EXPECT_EQ(lzvnDecode(std::vector<uint8_t>{0xE1, 'x', 0x00, 0x02}, out, 100), DecodeStatus::Corrupt);
  // Literals running past the input, an opcode cut short, no end opcode.
  out.clear();
  EXPECT_EQ(lzvnDecode(std::vector<uint8_t>{0xE5, 'a', 'b'}, out, 100), DecodeStatus::Truncated);
  out.clear();
  EXPECT_EQ(lzvnDecode(std::vector<uint8_t>{0xE1, 'a', 0x07, 0x01}, out, 100), DecodeStatus::Truncated);
  out.clear();
  EXPECT_EQ(lzvnDecode(std::vector<uint8_t>{0xE1, 'a'}, out, 100), DecodeStatus::Truncated);
  // More output than allowed: refused at the cap, never written past it.
  out.clear();
  const auto s = everyOpcodeStream();
  EXPECT_EQ(lzvnDecode(s, out, kEveryOpcodeText.size() - 1), DecodeStatus::TooLarge);
  EXPECT_LE(out.size(), kEveryOpcodeText.size() - 1);
}

TEST(Lzfse, StoredAndLzvnBlocksShareOneOutput) {
  std::vector<uint8_t> s = bytes("bvx-");
  const uint8_t five[4] = {5, 0, 0, 0};
  s.insert(s.end(), five, five + 4);
  for (char c : std::string("hello")) s.push_back(static_cast<uint8_t>(c));
  // An LZVN block whose match reaches back into the stored block.
  const std::vector<uint8_t> lzvn = {0xE1, ' ', 0x17, 0x06, 0x00, 0x06, 0, 0, 0, 0, 0, 0, 0};
  const auto n = bytes("bvxn");
  s.insert(s.end(), n.begin(), n.end());
  const uint8_t sizes[8] = {6, 0, 0, 0, static_cast<uint8_t>(lzvn.size()), 0, 0, 0};
  s.insert(s.end(), sizes, sizes + 8);
  s.insert(s.end(), lzvn.begin(), lzvn.end());
  const auto end = bytes("bvx$");
  std::vector<uint8_t> noEnd = s;
  s.insert(s.end(), end.begin(), end.end());

  std::vector<uint8_t> out;
  ASSERT_EQ(lzfseDecode(s, out, 100), DecodeStatus::Ok);
  EXPECT_EQ(text(out), "hello hello");

  out.clear();
  EXPECT_EQ(lzfseDecode(noEnd, out, 100), DecodeStatus::Truncated);
  out.clear();
  EXPECT_EQ(lzfseDecode(s, out, 10), DecodeStatus::TooLarge);
  EXPECT_LE(out.size(), 10u);
  out.clear();
  EXPECT_EQ(lzfseDecode(bytes("bvx9xxxxxxxx"), out, 100), DecodeStatus::Corrupt);
  // A stored block claiming more than the input holds.
  out.clear();
  EXPECT_EQ(lzfseDecode(std::vector<uint8_t>{'b', 'v', 'x', '-', 0xFF, 0xFF, 0xFF, 0x7F, 'a'}, out, 1u << 31),
            DecodeStatus::Truncated);
  EXPECT_TRUE(out.empty());
}

// The real payloads: compressed on Macs (ditto, afsctool and the system
// itself), each with the output the same source recorded.
struct RealCase {
  const char* attribute;  // a whole attribute value, or "" to build the header
  const char* coded;      // the inline payload or the resource fork
  uint32_t type;
  uint64_t size;
  const char* expected;
};

const RealCase kRealCases[] = {
    {"", "real_zlib_inline.payload", 3, 2000, "real_zlib_inline.expected"},
    {"", "zlib_type3_stored.payload", 3, 3000, "zlib_inline.expected"},
    {"tahoe_type9.decmpfs", "", 9, 63, "tahoe_type9.expected"},
    {"", "real_lzfse_inline.payload", 11, 2000, "real_zlib_inline.expected"},
    {"", "real_zlib_rsrc.rsrc", 4, 150000, "zlib.expected"},
    {"", "real_lzfse_rsrc.rsrc", 12, 150000, "zlib.expected"},
    {"", "lzvn.rsrc", 8, 80000, "lzvn.expected"},
    {"", "tahoe_type8.rsrc", 8, 1936, "tahoe_type8.expected"},
};

TEST(DecmpfsReal, EveryPayloadDecodesToItsExpectedBytes) {
  if (test::payloadDir().empty()) GTEST_SKIP() << "shared test data not present";
  for (const RealCase& c : kRealCases) {
    SCOPED_TRACE(c.coded[0] ? c.coded : c.attribute);
    const auto expected = payload(c.expected);
    ASSERT_EQ(expected.size(), c.size);
    std::vector<uint8_t> attribute, fork;
    if (c.attribute[0]) {
      attribute = payload(c.attribute);
    } else if (c.type % 2 == 1) {
      attribute = decmpfsAttribute(c.type, c.size, payload(c.coded));
    } else {
      attribute = decmpfsAttribute(c.type, c.size);
      fork = payload(c.coded);
    }
    std::string why;
    auto reader = DecmpfsReader::open(attribute, memoryFork(fork), fork.size(), &why);
    ASSERT_TRUE(reader) << why;
    EXPECT_EQ(reader->header().type, c.type);
    EXPECT_EQ(reader->size(), c.size);
    EXPECT_EQ(reader->chunkCount(), c.type % 2 ? 1u : (c.size + 65535) / 65536);
    int failures = 0;
    const auto out = decodeAll(*reader, &failures);
    EXPECT_EQ(failures, 0);
    EXPECT_TRUE(out == expected) << "decoded " << out.size() << " bytes";
  }
}

// Every byte of a real coded chunk changed in turn, and the chunk cut at
// every length: each decode must end and write at most its chunk. zlib's
// checksum lets no changed byte through; LZVN and LZFSE have none, so a
// changed literal decodes, but only to a chunk of the right size. A cut
// chunk decodes only when what was cut is padding after the stream's end.
TEST(DecmpfsReal, DamagedChunksStayWithinTheirSize) {
  if (test::payloadDir().empty()) GTEST_SKIP() << "shared test data not present";
  struct Piece {
    const char* file;
    DecmpfsAlgorithm algorithm;
    size_t from, to, expectedSize;
  };
  // One chunk of each resource fork, found through its table.
  const Piece pieces[] = {{"tahoe_type8.rsrc", DecmpfsAlgorithm::Lzvn, 8, 1188, 1936},
                          {"real_lzfse_inline.payload", DecmpfsAlgorithm::Lzfse, 0, 1021, 2000},
                          {"real_zlib_inline.payload", DecmpfsAlgorithm::Zlib, 0, 714, 2000}};
  for (const Piece& p : pieces) {
    SCOPED_TRACE(p.file);
    const auto file = payload(p.file);
    const std::vector<uint8_t> good(file.begin() + static_cast<std::ptrdiff_t>(p.from),
                                    file.begin() + static_cast<std::ptrdiff_t>(p.to));
    std::vector<uint8_t> reference;
    ASSERT_EQ(decodeDecmpfsChunk(p.algorithm, good, p.expectedSize, reference), DecodeStatus::Ok);
    int refused = 0;
    for (size_t i = 0; i < good.size(); ++i) {
      for (uint8_t flip : {0x01, 0x80, 0xFF}) {
        auto bad = good;
        bad[i] ^= flip;
        std::vector<uint8_t> out;
        const DecodeStatus s = decodeDecmpfsChunk(p.algorithm, bad, p.expectedSize, out);
        ASSERT_LE(out.size(), p.expectedSize);
        if (s != DecodeStatus::Ok) {
          ++refused;
          continue;
        }
        ASSERT_EQ(out.size(), p.expectedSize);
        if (p.algorithm == DecmpfsAlgorithm::Zlib) {
          ASSERT_TRUE(out == reference) << "flip at " << i;
        }
      }
      std::vector<uint8_t> out;
      const std::vector<uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(i));
      if (decodeDecmpfsChunk(p.algorithm, cut, p.expectedSize, out) == DecodeStatus::Ok) {
        ASSERT_TRUE(out == reference) << "cut at " << i;
      } else {
        ASSERT_LE(out.size(), p.expectedSize);
      }
    }
    EXPECT_GT(refused, 0);
  }
}

TEST(DecmpfsHeader, MagicTypesAndSizes) {
  auto h = parseDecmpfsHeader(decmpfsAttribute(4, 150000));
  ASSERT_TRUE(h);
  EXPECT_EQ(h->algorithm, DecmpfsAlgorithm::Zlib);
  EXPECT_TRUE(h->inResourceFork);
  EXPECT_EQ(h->uncompressedSize, 150000u);
  h = parseDecmpfsHeader(decmpfsAttribute(11, 7));
  ASSERT_TRUE(h);
  EXPECT_EQ(h->algorithm, DecmpfsAlgorithm::Lzfse);
  EXPECT_FALSE(h->inResourceFork);
  for (uint32_t unsupported : {0u, 1u, 2u, 5u, 6u, 13u, 14u, 0x80000003u})
    EXPECT_FALSE(parseDecmpfsHeader(decmpfsAttribute(unsupported, 10))) << unsupported;
  EXPECT_FALSE(parseDecmpfsHeader(decmpfsAttribute(3, uint64_t{1} << 32)));
  auto wrongMagic = decmpfsAttribute(3, 10);
  wrongMagic[0] = 'c';
  EXPECT_FALSE(parseDecmpfsHeader(wrongMagic));
  EXPECT_FALSE(parseDecmpfsHeader(std::vector<uint8_t>(15, 0)));
}

TEST(DecmpfsReader, ChunkTablesThatLieAreBoundedPerChunk) {
  std::string why;
  // A 2-chunk LZVN fork whose second offset runs past the fork: the first
  // chunk still decodes, the second is reported damaged.
  std::vector<uint8_t> fork(12, 0);
  storeLE32(&fork[0], 12);
  const std::vector<uint8_t> stored = [] {
    std::vector<uint8_t> s(1 + 65536, 'z');
    s[0] = 0x06;  // stored as is
    return s;
  }();
  fork.insert(fork.end(), stored.begin(), stored.end());
  storeLE32(&fork[4], static_cast<uint32_t>(fork.size()));
  storeLE32(&fork[8], static_cast<uint32_t>(fork.size() + 1000));
  auto attribute = decmpfsAttribute(8, 65536 + 10);
  auto reader = DecmpfsReader::open(attribute, memoryFork(fork), fork.size(), &why);
  ASSERT_TRUE(reader) << why;
  std::vector<uint8_t> out;
  EXPECT_EQ(reader->readChunk(0, out), DecmpfsReader::Chunk::Ok);
  EXPECT_EQ(out, std::vector<uint8_t>(65536, 'z'));
  EXPECT_EQ(reader->readChunk(1, out), DecmpfsReader::Chunk::Damaged);
  EXPECT_TRUE(out.empty());

  // A size needing more chunks than the fork could index is refused at once.
  EXPECT_FALSE(DecmpfsReader::open(decmpfsAttribute(8, uint64_t{4000} << 16), memoryFork(fork), fork.size(), &why));
  // A table whose first offset is shorter than the table itself.
  auto shortTable = fork;
  storeLE32(&shortTable[0], 4);
  EXPECT_FALSE(DecmpfsReader::open(attribute, memoryFork(shortTable), shortTable.size(), &why));
  // An attribute payload that claims a huge output is refused before any memory is given.
  EXPECT_FALSE(DecmpfsReader::open(decmpfsAttribute(7, kMaxInlineDecodedSize + 1, {0x06}), {}, 0, &why));

  // A resource fork that cannot be read: the chunk says so, apart from damage.
  int reads = 0;
  ForkReader failing = [&](uint64_t offset, size_t length, uint8_t* o) {
    if (++reads > 1) return false;
    std::memcpy(o, fork.data() + offset, length);
    return true;
  };
  reader = DecmpfsReader::open(attribute, failing, fork.size(), &why);
  ASSERT_TRUE(reader) << why;
  EXPECT_EQ(reader->readChunk(0, out), DecmpfsReader::Chunk::ReadFailed);
}

TEST(DecmpfsReader, ZlibTableWithFewerChunksThanTheSizeNeeds) {
  if (test::payloadDir().empty()) GTEST_SKIP() << "shared test data not present";
  auto fork = payload("real_zlib_rsrc.rsrc");
  const auto expected = payload("zlib.expected");
  // The table lists 3 chunks; say it lists 2: the third is missing, the
  // first two still come out right.
  storeLE32(&fork[0x104], 2);
  std::string why;
  auto reader = DecmpfsReader::open(decmpfsAttribute(4, 150000), memoryFork(fork), fork.size(), &why);
  ASSERT_TRUE(reader) << why;
  std::vector<uint8_t> out;
  ASSERT_EQ(reader->readChunk(1, out), DecmpfsReader::Chunk::Ok);
  EXPECT_TRUE(std::equal(out.begin(), out.end(), expected.begin() + 65536));
  EXPECT_EQ(reader->readChunk(2, out), DecmpfsReader::Chunk::Damaged);
  // A stored zlib chunk shorter than its share of the file.
  EXPECT_EQ(decodeDecmpfsChunk(DecmpfsAlgorithm::Zlib, std::vector<uint8_t>{0xFF, 'a', 'b'}, 3, out),
            DecodeStatus::Truncated);
  EXPECT_EQ(decodeDecmpfsChunk(DecmpfsAlgorithm::Raw, std::vector<uint8_t>{'a', 'b', 'c'}, 2, out),
            DecodeStatus::Corrupt);
}

}  // namespace
}  // namespace ambrel
