#pragma once
// The format validators, one per file-type code (see Validator.h for the
// contract and docs/format/carving.md for adding one).
#include "carving/Validator.h"

namespace ambrel {

// Images.
bool checkJPGFileAtBlock(Candidate& c, Sig& sig);    // 3
bool checkPNGFileAtBlock(Candidate& c, Sig& sig);    // 6
bool checkGIFFileAtBlock(Candidate& c, Sig& sig);    // 4
bool checkBMPFileAtBlock(Candidate& c, Sig& sig);    // 2
bool checkICNS_FileAtBlock(Candidate& c, Sig& sig);  // 20
bool checkTIFF_FileAtBlock(Candidate& c, Sig& sig);  // 5

// checkPNG_Chunk: a chunk whose length is not negative as a signed 32-bit
// number and whose type is four ASCII letters.
bool checkPNG_Chunk(uint32_t length, const uint8_t type[4]);

}  // namespace ambrel
