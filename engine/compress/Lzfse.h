#pragma once
// LZFSE: the LZ coder with finite-state entropy coding used by compressed HFS+
// files of decmpfs types 11 and 12. A stream is a run of blocks, each opened
// by a magic word: "bvx-" stored bytes, "bvxn" an LZVN block, "bvx1" and
// "bvx2" entropy-coded blocks (literals in four interleaved FSE streams, then
// one stream of literal-length, match-length and distance triples), and
// "bvx$" the end.
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "compress/Decode.h"

namespace ambrel {

// Decodes a whole LZFSE stream up to its end-of-stream block, appending to
// `out`, which never grows past `maxOut` bytes in total.
DecodeStatus lzfseDecode(std::span<const uint8_t> in, std::vector<uint8_t>& out, size_t maxOut);

}  // namespace ambrel
