#include "compress/Lzfse.h"

#include <array>
#include <bit>
#include <cstring>

#include "base/Endian.h"
#include "compress/Lzvn.h"

namespace ambrel {

namespace {

constexpr uint32_t kEndOfStreamMagic = 0x24787662;   // "bvx$"
constexpr uint32_t kUncompressedMagic = 0x2d787662;  // "bvx-"
constexpr uint32_t kV1Magic = 0x31787662;            // "bvx1"
constexpr uint32_t kV2Magic = 0x32787662;            // "bvx2"
constexpr uint32_t kLzvnMagic = 0x6e787662;          // "bvxn"

constexpr int kLSymbols = 20, kMSymbols = 20, kDSymbols = 64, kLiteralSymbols = 256;
constexpr int kLStates = 64, kMStates = 64, kDStates = 256, kLiteralStates = 1024;
constexpr int kFreqCount = kLSymbols + kMSymbols + kDSymbols + kLiteralSymbols;
// An encoder never puts more matches, or literals, into one block than
// these; more matches would let empty triples spin the decoder.
constexpr uint32_t kMaxMatchesPerBlock = 10000;
constexpr uint32_t kMaxLiteralsPerBlock = 4 * kMaxMatchesPerBlock;
constexpr size_t kV2FixedHeader = 32;
// The entropy-coded block header with its frequency tables written out
// (packed: 770 bytes).
constexpr size_t kV1HeaderSize = 770;

constexpr std::array<uint8_t, kLSymbols> kLExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 3, 5, 8};
constexpr std::array<int32_t, kLSymbols> kLBase = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 20, 28, 60};
constexpr std::array<uint8_t, kMSymbols> kMExtraBits = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 5, 8, 11};
constexpr std::array<int32_t, kMSymbols> kMBase = {0,  1,  2,  3,  4,  5,  6,  7,  8,  9,
                                                   10, 11, 12, 13, 14, 15, 16, 24, 56, 312};
// Distance symbols: four per extra-bit count 0..15, each base the previous
// base plus the previous symbol's range.
constexpr std::array<uint8_t, kDSymbols> kDExtraBits = [] {
  std::array<uint8_t, kDSymbols> bits{};
  for (int i = 0; i < kDSymbols; ++i) bits[i] = static_cast<uint8_t>(i / 4);
  return bits;
}();
constexpr std::array<int32_t, kDSymbols> kDBase = [] {
  std::array<int32_t, kDSymbols> base{};
  for (int i = 1; i < kDSymbols; ++i) base[i] = base[i - 1] + (int32_t{1} << kDExtraBits[i - 1]);
  return base;
}();
static_assert(kDBase[4] == 4 && kDBase[8] == 12 && kDBase[32] == 1020 && kDBase[63] == 229372);

struct BlockHeader {
  uint32_t nRawBytes = 0;
  uint32_t nLiterals = 0;
  uint32_t nMatches = 0;
  uint32_t nLiteralPayloadBytes = 0;
  uint32_t nLmdPayloadBytes = 0;
  int32_t literalBits = 0;
  uint16_t literalState[4] = {};
  int32_t lmdBits = 0;
  uint16_t lState = 0, mState = 0, dState = 0;
  uint16_t freq[kFreqCount] = {};  // L, M, D, literal tables in that order
  const uint16_t* lFreq() const { return freq; }
  const uint16_t* mFreq() const { return freq + kLSymbols; }
  const uint16_t* dFreq() const { return freq + kLSymbols + kMSymbols; }
  const uint16_t* literalFreq() const { return freq + kLSymbols + kMSymbols + kDSymbols; }
};

uint64_t field(uint64_t v, int offset, int bits) { return (v >> offset) & ((uint64_t{1} << bits) - 1); }

// One frequency of the v2 header's variable-length code: the value and how
// many bits it took, from the low bits of `bits`.
uint16_t frequencyValue(uint32_t bits, int* nbits) {
  static constexpr int8_t kBits[32] = {2, 3, 2, 5, 2, 3, 2, 8, 2, 3, 2, 5, 2, 3, 2, 14,
                                       2, 3, 2, 5, 2, 3, 2, 8, 2, 3, 2, 5, 2, 3, 2, 14};
  static constexpr int8_t kValues[32] = {0, 2, 1, 4, 0, 3, 1, -1, 0, 2, 1, 5, 0, 3, 1, -1,
                                         0, 2, 1, 6, 0, 3, 1, -1, 0, 2, 1, 7, 0, 3, 1, -1};
  const uint32_t b = bits & 31;
  *nbits = kBits[b];
  if (*nbits == 8) return static_cast<uint16_t>(8 + ((bits >> 4) & 0xF));
  if (*nbits == 14) return static_cast<uint16_t>(24 + ((bits >> 4) & 0x3FF));
  return static_cast<uint16_t>(kValues[b]);
}

// The frequency tables of a v2 header from the bytes after its fixed part;
// they must use every byte, leaving fewer than 8 bits over.
bool decodeFrequencies(std::span<const uint8_t> bytes, uint16_t* freq) {
  uint32_t accum = 0;
  int accumBits = 0;
  size_t pos = 0;
  for (int i = 0; i < kFreqCount; ++i) {
    while (pos < bytes.size() && accumBits + 8 <= 32) {
      accum |= uint32_t{bytes[pos++]} << accumBits;
      accumBits += 8;
    }
    int nbits = 0;
    freq[i] = frequencyValue(accum, &nbits);
    if (nbits > accumBits) return false;
    accum >>= nbits;
    accumBits -= nbits;
  }
  return accumBits < 8 && pos == bytes.size();
}

bool parseV2(std::span<const uint8_t> in, BlockHeader& h, size_t* headerSize) {
  if (in.size() < kV2FixedHeader) return false;
  h.nRawBytes = loadLE32(&in[4]);
  const uint64_t f0 = loadLE64(&in[8]), f1 = loadLE64(&in[16]), f2 = loadLE64(&in[24]);
  h.nLiterals = static_cast<uint32_t>(field(f0, 0, 20));
  h.nLiteralPayloadBytes = static_cast<uint32_t>(field(f0, 20, 20));
  h.nMatches = static_cast<uint32_t>(field(f0, 40, 20));
  h.literalBits = static_cast<int32_t>(field(f0, 60, 3)) - 7;
  for (int i = 0; i < 4; ++i) h.literalState[i] = static_cast<uint16_t>(field(f1, 10 * i, 10));
  h.nLmdPayloadBytes = static_cast<uint32_t>(field(f1, 40, 20));
  h.lmdBits = static_cast<int32_t>(field(f1, 60, 3)) - 7;
  const uint64_t size = field(f2, 0, 32);
  h.lState = static_cast<uint16_t>(field(f2, 32, 10));
  h.mState = static_cast<uint16_t>(field(f2, 42, 10));
  h.dState = static_cast<uint16_t>(field(f2, 52, 10));
  if (size < kV2FixedHeader || size > in.size()) return false;
  std::memset(h.freq, 0, sizeof h.freq);
  if (size > kV2FixedHeader && !decodeFrequencies(in.subspan(kV2FixedHeader, size - kV2FixedHeader), h.freq))
    return false;
  *headerSize = static_cast<size_t>(size);
  return true;
}

bool parseV1(std::span<const uint8_t> in, BlockHeader& h) {
  if (in.size() < kV1HeaderSize) return false;
  h.nRawBytes = loadLE32(&in[4]);
  h.nLiterals = loadLE32(&in[12]);
  h.nMatches = loadLE32(&in[16]);
  h.nLiteralPayloadBytes = loadLE32(&in[20]);
  h.nLmdPayloadBytes = loadLE32(&in[24]);
  h.literalBits = static_cast<int32_t>(loadLE32(&in[28]));
  for (int i = 0; i < 4; ++i) h.literalState[i] = loadLE16(&in[32 + 2 * i]);
  h.lmdBits = static_cast<int32_t>(loadLE32(&in[40]));
  h.lState = loadLE16(&in[44]);
  h.mState = loadLE16(&in[46]);
  h.dState = loadLE16(&in[48]);
  for (int i = 0; i < kFreqCount; ++i) h.freq[i] = loadLE16(&in[50 + 2 * i]);
  return true;
}

bool frequenciesFit(const uint16_t* freq, int symbols, int states) {
  uint32_t sum = 0;
  for (int i = 0; i < symbols; ++i) sum += freq[i];
  return sum <= static_cast<uint32_t>(states);
}

bool plausible(const BlockHeader& h) {
  for (uint16_t s : h.literalState)
    if (s >= kLiteralStates) return false;
  return h.lState < kLStates && h.mState < kMStates && h.dState < kDStates && h.nLiterals <= kMaxLiteralsPerBlock &&
         h.nMatches <= kMaxMatchesPerBlock &&
         h.literalBits >= -7 && h.literalBits <= 0 && h.lmdBits >= -7 && h.lmdBits <= 0 &&
         frequenciesFit(h.lFreq(), kLSymbols, kLStates) && frequenciesFit(h.mFreq(), kMSymbols, kMStates) &&
         frequenciesFit(h.dFreq(), kDSymbols, kDStates) &&
         frequenciesFit(h.literalFreq(), kLiteralSymbols, kLiteralStates);
}

// The backward bit reader of the FSE streams: bytes are taken from the end of
// a stream towards its start, and bits from the most significant end of the
// accumulator, which holds 56 to 63 bits after each refill.
class BitReader {
 public:
  BitReader(const uint8_t* lowest, const uint8_t* end) : lowest_(lowest), ptr_(end) {}

  bool init(int32_t n) {
    const int bytes = n == 0 ? 7 : 8;
    if (ptr_ - lowest_ < bytes) return false;
    ptr_ -= bytes;
    accum_ = 0;
    for (int i = 0; i < bytes; ++i) accum_ |= uint64_t{ptr_[i]} << (8 * i);
    bits_ = n == 0 ? 56 : 64 + n;
    // The encoder leaves the bits above the stream's start zero.
    return bits_ >= 56 && bits_ < 64 && (accum_ >> bits_) == 0;
  }

  bool refill() {
    const int nbits = (63 - bits_) & ~7;
    const int bytes = nbits >> 3;
    if (ptr_ - lowest_ < bytes) return false;
    ptr_ -= bytes;
    uint64_t incoming = 0;
    for (int i = 0; i < bytes; ++i) incoming |= uint64_t{ptr_[i]} << (8 * i);
    accum_ = nbits == 0 ? accum_ : (accum_ << nbits) | incoming;
    bits_ += nbits;
    return true;
  }

  // Callers pull at most 56 bits between refills (the tables bound it); the
  // check only guards damaged tables.
  bool pull(int n, uint64_t* out) {
    if (n > bits_) return false;
    bits_ -= n;
    *out = accum_ >> bits_;
    accum_ &= bits_ == 0 ? 0 : (~uint64_t{0} >> (64 - bits_));
    return true;
  }

 private:
  const uint8_t* lowest_;
  const uint8_t* ptr_;
  uint64_t accum_ = 0;
  int bits_ = 0;
};

struct LiteralEntry {
  uint8_t bits = 0;
  uint8_t symbol = 0;
  int16_t delta = 0;
};

struct ValueEntry {
  uint8_t totalBits = 0;  // state bits plus value bits
  uint8_t valueBits = 0;
  int16_t delta = 0;
  int32_t base = 0;
};

// The states each symbol owns, in symbol order: a symbol of frequency f
// takes f states; the first j0 of them read k bits, the rest k - 1.
template <class Make>
void buildTable(int states, int symbols, const uint16_t* freq, Make make) {
  const int nclz = std::countl_zero(static_cast<uint32_t>(states));
  int at = 0;
  for (int i = 0; i < symbols; ++i) {
    const int f = freq[i];
    if (f == 0) continue;
    const int k = std::countl_zero(static_cast<uint32_t>(f)) - nclz;
    const int j0 = ((2 * states) >> k) - f;
    for (int j = 0; j < f && at < states; ++j, ++at) {
      if (j < j0) make(at, i, k, static_cast<int16_t>(((f + j) << k) - states));
      else make(at, i, k - 1, static_cast<int16_t>((j - j0) << (k - 1)));
    }
  }
}

template <size_t N>
void buildValueTable(std::array<ValueEntry, N>& table, int symbols, const uint16_t* freq, const uint8_t* extraBits,
                     const int32_t* base) {
  table.fill(ValueEntry{});
  buildTable(static_cast<int>(N), symbols, freq, [&](int at, int symbol, int k, int16_t delta) {
    table[at] = {static_cast<uint8_t>(k + extraBits[symbol]), extraBits[symbol], delta, base[symbol]};
  });
}

bool decodeValue(BitReader& in, uint16_t& state, const ValueEntry* table, int32_t* value) {
  const ValueEntry& e = table[state];
  uint64_t bits = 0;
  if (!in.pull(e.totalBits, &bits)) return false;
  state = static_cast<uint16_t>(e.delta + static_cast<int32_t>(bits >> e.valueBits));
  *value = e.base + static_cast<int32_t>(bits & ((uint64_t{1} << e.valueBits) - 1));
  return true;
}

DecodeStatus decodeBlock(const BlockHeader& h, const uint8_t* lowest, std::span<const uint8_t> payload,
                         std::vector<uint8_t>& out, size_t maxOut) {
  if (!plausible(h)) return DecodeStatus::Corrupt;
  if (uint64_t{h.nLiteralPayloadBytes} + h.nLmdPayloadBytes > payload.size()) return DecodeStatus::Truncated;
  if (maxOut - out.size() < h.nRawBytes) return DecodeStatus::TooLarge;

  // Literals: four interleaved streams, decoded four at a time.
  std::array<LiteralEntry, kLiteralStates> literalTable{};
  buildTable(kLiteralStates, kLiteralSymbols, h.literalFreq(), [&](int at, int symbol, int k, int16_t delta) {
    literalTable[at] = {static_cast<uint8_t>(k), static_cast<uint8_t>(symbol), delta};
  });
  std::vector<uint8_t> literals((h.nLiterals + 3) & ~3u);
  {
    BitReader in(lowest, payload.data() + h.nLiteralPayloadBytes);
    if (!in.init(h.literalBits)) return DecodeStatus::Corrupt;
    uint16_t state[4] = {h.literalState[0], h.literalState[1], h.literalState[2], h.literalState[3]};
    for (size_t i = 0; i < literals.size(); i += 4) {
      if (!in.refill()) return DecodeStatus::Corrupt;
      for (int s = 0; s < 4; ++s) {
        const LiteralEntry& e = literalTable[state[s]];
        uint64_t bits = 0;
        if (!in.pull(e.bits, &bits)) return DecodeStatus::Corrupt;
        literals[i + s] = e.symbol;
        state[s] = static_cast<uint16_t>(e.delta + static_cast<int32_t>(bits));
      }
    }
  }

  // Literal lengths, match lengths and distances.
  std::array<ValueEntry, kLStates> lTable;
  std::array<ValueEntry, kMStates> mTable;
  std::array<ValueEntry, kDStates> dTable;
  buildValueTable(lTable, kLSymbols, h.lFreq(), kLExtraBits.data(), kLBase.data());
  buildValueTable(mTable, kMSymbols, h.mFreq(), kMExtraBits.data(), kMBase.data());
  buildValueTable(dTable, kDSymbols, h.dFreq(), kDExtraBits.data(), kDBase.data());
  BitReader in(lowest, payload.data() + h.nLiteralPayloadBytes + h.nLmdPayloadBytes);
  if (!in.init(h.lmdBits)) return DecodeStatus::Corrupt;
  uint16_t l = h.lState, m = h.mState, d = h.dState;
  const size_t blockStart = out.size();
  size_t literalAt = 0;
  size_t distance = 0;
  for (uint32_t i = 0; i < h.nMatches; ++i) {
    int32_t L = 0, M = 0, D = 0;
    if (!in.refill() || !decodeValue(in, l, lTable.data(), &L) || !decodeValue(in, m, mTable.data(), &M) ||
        !decodeValue(in, d, dTable.data(), &D))
      return DecodeStatus::Corrupt;
    if (D != 0) distance = static_cast<size_t>(D);
    const size_t lits = static_cast<size_t>(L), match = static_cast<size_t>(M);
    if (lits > h.nLiterals - literalAt) return DecodeStatus::Corrupt;
    if (out.size() - blockStart + lits + match > h.nRawBytes) return DecodeStatus::Corrupt;
    out.insert(out.end(), literals.begin() + static_cast<std::ptrdiff_t>(literalAt),
               literals.begin() + static_cast<std::ptrdiff_t>(literalAt + lits));
    literalAt += lits;
    if (match > 0) {
      if (distance == 0 || distance > out.size()) return DecodeStatus::Corrupt;
      const size_t from = out.size() - distance;
      out.reserve(out.size() + match);
      for (size_t k = 0; k < match; ++k) {
        const uint8_t v = out[from + k];
        out.push_back(v);
      }
    }
  }
  return out.size() - blockStart == h.nRawBytes ? DecodeStatus::Ok : DecodeStatus::Corrupt;
}

}  // namespace

DecodeStatus lzfseDecode(std::span<const uint8_t> in, std::vector<uint8_t>& out, size_t maxOut) {
  if (out.size() > maxOut) return DecodeStatus::TooLarge;
  size_t pos = 0;
  // Every block moves pos forward by at least its magic word.
  for (;;) {
    if (in.size() - pos < 4) return DecodeStatus::Truncated;
    const std::span<const uint8_t> rest = in.subspan(pos);
    const uint32_t magic = loadLE32(rest.data());
    switch (magic) {
      case kEndOfStreamMagic:
        return DecodeStatus::Ok;
      case kUncompressedMagic: {
        if (rest.size() < 8) return DecodeStatus::Truncated;
        const uint32_t n = loadLE32(&rest[4]);
        if (rest.size() - 8 < n) return DecodeStatus::Truncated;
        if (maxOut - out.size() < n) return DecodeStatus::TooLarge;
        out.insert(out.end(), rest.begin() + 8, rest.begin() + 8 + n);
        pos += 8 + size_t{n};
        break;
      }
      case kLzvnMagic: {
        if (rest.size() < 12) return DecodeStatus::Truncated;
        const uint32_t raw = loadLE32(&rest[4]);
        const uint32_t payload = loadLE32(&rest[8]);
        if (rest.size() - 12 < payload) return DecodeStatus::Truncated;
        if (maxOut - out.size() < raw) return DecodeStatus::TooLarge;
        const size_t before = out.size();
        const DecodeStatus s = lzvnDecode(rest.subspan(12, payload), out, before + raw);
        // A block that decodes to more or less than it declares is damaged.
        if (s == DecodeStatus::TooLarge) return DecodeStatus::Corrupt;
        if (s != DecodeStatus::Ok) return s;
        if (out.size() - before != raw) return DecodeStatus::Corrupt;
        pos += 12 + size_t{payload};
        break;
      }
      case kV1Magic:
      case kV2Magic: {
        BlockHeader h;
        size_t headerSize = kV1HeaderSize;
        if (magic == kV2Magic ? !parseV2(rest, h, &headerSize) : !parseV1(rest, h)) {
          return rest.size() < (magic == kV2Magic ? kV2FixedHeader : kV1HeaderSize) ? DecodeStatus::Truncated
                                                                                   : DecodeStatus::Corrupt;
        }
        const std::span<const uint8_t> payload = rest.subspan(headerSize);
        const DecodeStatus s = decodeBlock(h, in.data(), payload, out, maxOut);
        if (s != DecodeStatus::Ok) return s;
        pos += headerSize + size_t{h.nLiteralPayloadBytes} + h.nLmdPayloadBytes;
        break;
      }
      default:
        return DecodeStatus::Corrupt;
    }
  }
}

}  // namespace ambrel
