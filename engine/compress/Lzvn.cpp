#include "compress/Lzvn.h"

namespace ambrel {

namespace {

enum class Op { SmallDistance, MediumDistance, LargeDistance, PreviousDistance, SmallMatch, LargeMatch,
                SmallLiteral, LargeLiteral, Nop, End, Undefined };

// The opcode kinds by first byte.
Op opOf(uint8_t b) {
  if (b >= 0xF0) return b == 0xF0 ? Op::LargeMatch : Op::SmallMatch;
  if (b >= 0xE0) return b == 0xE0 ? Op::LargeLiteral : Op::SmallLiteral;
  if (b >= 0xD0) return Op::Undefined;
  if (b >= 0xA0 && b <= 0xBF) return Op::MediumDistance;
  if (b >= 0x70 && b <= 0x7F) return Op::Undefined;
  switch (b & 7) {
    case 7:
      return Op::LargeDistance;
    case 6:
      if (b == 0x06) return Op::End;
      if (b == 0x0E || b == 0x16) return Op::Nop;
      return b < 0x40 ? Op::Undefined : Op::PreviousDistance;
    default:
      return Op::SmallDistance;
  }
}

}  // namespace

const char* decodeStatusText(DecodeStatus status) {
  switch (status) {
    case DecodeStatus::Ok: return "ok";
    case DecodeStatus::Truncated: return "the compressed data ends early";
    case DecodeStatus::Corrupt: return "the compressed data is damaged";
    case DecodeStatus::TooLarge: return "the compressed data decodes to more than the file's size";
  }
  return "unknown";
}

DecodeStatus lzvnDecode(std::span<const uint8_t> in, std::vector<uint8_t>& out, size_t maxOut, size_t* consumed) {
  if (out.size() > maxOut) return DecodeStatus::TooLarge;
  const size_t n = in.size();
  size_t pos = 0;
  size_t distance = 0;  // the previous match distance; none yet
  // Every opcode moves pos forward by at least one byte, so the loop ends.
  for (;;) {
    if (pos >= n) return DecodeStatus::Truncated;
    const uint8_t b = in[pos];
    const Op op = opOf(b);
    size_t literals = 0, match = 0, width = 1;
    auto need = [&](size_t bytes) { return n - pos >= bytes; };
    switch (op) {
      case Op::End:
        if (consumed) *consumed = pos + 1;
        return DecodeStatus::Ok;
      case Op::Nop:
        ++pos;
        continue;
      case Op::Undefined:
        return DecodeStatus::Corrupt;
      case Op::SmallDistance:
        if (!need(2)) return DecodeStatus::Truncated;
        literals = b >> 6;
        match = ((b >> 3) & 7) + 3;
        distance = (size_t{b & 7u} << 8) | in[pos + 1];
        width = 2;
        break;
      case Op::MediumDistance: {
        if (!need(3)) return DecodeStatus::Truncated;
        const uint16_t w = static_cast<uint16_t>(in[pos + 1] | (in[pos + 2] << 8));
        literals = (b >> 3) & 3;
        match = (((b & 7u) << 2) | (w & 3u)) + 3;
        distance = w >> 2;
        width = 3;
        break;
      }
      case Op::LargeDistance:
        if (!need(3)) return DecodeStatus::Truncated;
        literals = b >> 6;
        match = ((b >> 3) & 7) + 3;
        distance = size_t{in[pos + 1]} | (size_t{in[pos + 2]} << 8);
        width = 3;
        break;
      case Op::PreviousDistance:
        literals = b >> 6;
        match = ((b >> 3) & 7) + 3;
        break;
      case Op::SmallMatch:
        match = b & 0x0F;
        break;
      case Op::LargeMatch:
        if (!need(2)) return DecodeStatus::Truncated;
        match = size_t{in[pos + 1]} + 16;
        width = 2;
        break;
      case Op::SmallLiteral:
        literals = b & 0x0F;
        break;
      case Op::LargeLiteral:
        if (!need(2)) return DecodeStatus::Truncated;
        literals = size_t{in[pos + 1]} + 16;
        width = 2;
        break;
    }
    pos += width;
    if (literals > 0) {
      if (n - pos < literals) return DecodeStatus::Truncated;
      if (maxOut - out.size() < literals) return DecodeStatus::TooLarge;
      out.insert(out.end(), in.begin() + static_cast<std::ptrdiff_t>(pos),
                 in.begin() + static_cast<std::ptrdiff_t>(pos + literals));
      pos += literals;
    }
    if (match > 0) {
      if (distance == 0 || distance > out.size()) return DecodeStatus::Corrupt;
      if (maxOut - out.size() < match) return DecodeStatus::TooLarge;
      // Byte by byte: a match may overlap what it is writing.
      const size_t from = out.size() - distance;
      out.reserve(out.size() + match);
      for (size_t i = 0; i < match; ++i) {
        const uint8_t v = out[from + i];
        out.push_back(v);
      }
    }
  }
}

}  // namespace ambrel
