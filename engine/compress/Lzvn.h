#pragma once
// LZVN: the byte-oriented LZ coder of compressed HFS+ files (decmpfs types 7
// and 8) and of LZFSE's "bvxn" blocks.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "compress/Decode.h"

namespace ambrel {

// Decodes one LZVN stream from `in` up to its end-of-stream opcode, appending
// to `out`. Matches may reach back into what `out` held before the call (an
// LZFSE stream is one output across its blocks). `out` never grows past
// `maxOut` bytes in total. `consumed`, when given, receives the input bytes
// read up to and including the end-of-stream opcode; bytes after it are left
// alone (real streams carry padding there).
DecodeStatus lzvnDecode(std::span<const uint8_t> in, std::vector<uint8_t>& out, size_t maxOut,
                        size_t* consumed = nullptr);

}  // namespace ambrel
