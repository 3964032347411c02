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

// Audio.
bool checkWAVFileAtBlock(Candidate& c, Sig& sig);    // 13
bool checkAIFF_FileAtBlock(Candidate& c, Sig& sig);  // 28
bool checkMIDIFileAtBlock(Candidate& c, Sig& sig);   // 14
bool checkMP3FileAtBlock(Candidate& c, Sig& sig);    // 16

// Video.
bool checkAVIFileAtBlock(Candidate& c, Sig& sig);     // 18
bool checkMOVFileAtBlock(Candidate& c, Sig& sig);     // 15
bool checkMP4FileAtBlock(Candidate& c, Sig& sig);     // 17
bool check3GPP_FileAtBlock(Candidate& c, Sig& sig);   // 26
bool check3GPP2_FileAtBlock(Candidate& c, Sig& sig);  // 27
bool checkMPGFileAtBlock(Candidate& c, Sig& sig);     // 19

// Documents and archives.
bool checkPDF_FileAtBlock(Candidate& c, Sig& sig);   // 24
bool checkZIP_FileAtBlock(Candidate& c, Sig& sig);   // 21
bool checkRAR_FileAtBlock(Candidate& c, Sig& sig);   // 23
bool checkRAR5_FileAtBlock(Candidate& c, Sig& sig);  // 29
bool checkMSOFileAtBlock(Candidate& c, Sig& sig);    // 1
bool checkRTF_FileAtBlock(Candidate& c, Sig& sig);   // 25

// Camera RAW.
bool checkCR2FileAtBlock(Candidate& c, Sig& sig);        // 8
bool checkNEF_FileAtBlock(Candidate& c, Sig& sig);       // 9
bool checkSONY_RAWFileAtBlock(Candidate& c, Sig& sig);   // 10
bool checkMRWFileAtBlock(Candidate& c, Sig& sig);        // 11
bool checkORF_FileAtBlock(Candidate& c, Sig& sig);       // 12

// The names a top-level atom may have: four lower-case letters a-z.
bool checkMOVAtomName(const uint8_t type[4]);
bool checkMP4AtomName(const uint8_t type[4]);

// checkPNG_Chunk: a chunk whose length is not negative as a signed 32-bit
// number and whose type is four ASCII letters.
bool checkPNG_Chunk(uint32_t length, const uint8_t type[4]);

}  // namespace ambrel
