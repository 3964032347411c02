#pragma once
// What a decoder of compressed file content answers. Every decoder appends to
// an output vector that it never lets grow past a cap the caller derives from
// the size the file declares, and reads nothing outside its input span.
#include <cstdint>

namespace ambrel {

enum class DecodeStatus {
  Ok,
  Truncated,  // the input ended before the stream did
  Corrupt,    // an impossible opcode, table, distance or length
  TooLarge,   // the stream would write past the cap
};

const char* decodeStatusText(DecodeStatus status);

}  // namespace ambrel
