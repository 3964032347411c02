// The document and archive validators over arbitrary bytes standing for a
// drive: the first byte picks the validator and the block size, the rest is
// the drive with the candidate at its first block. Trailer searches, block
// walks and the RTF reader must end within the drive, whatever the bytes say.
#include <cstdint>
#include <span>

#include "carving/Validators.h"

using namespace ambrel;

namespace {

constexpr ValidatorFn kValidators[] = {checkPDF_FileAtBlock, checkZIP_FileAtBlock, checkRAR_FileAtBlock,
                                       checkRAR5_FileAtBlock, checkMSOFileAtBlock, checkRTF_FileAtBlock};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const ValidatorFn fn = kValidators[(data[0] & 0x7F) % std::size(kValidators)];
  const int32_t blockSize = (data[0] & 0x80) ? 8 : 1;
  std::span<const uint8_t> drive(data + 1, size - 1);
  MemorySectorSource source(drive);
  SearchState state;
  Sig sig;
  sig.userSize = 1 << 20;
  sig.extension = "x";
  CarveGeometry geometry{0, blockSize, source.sectorCount() / uint64_t(blockSize) + 1, 0};
  Candidate c(source, geometry, 0, state);
  const bool accepted = fn(c, sig);
  if (sig.skipFileSize && sig.skipSize != 0 && fn != checkRTF_FileAtBlock &&
      uint64_t{sig.skipSize} * c.blockBytes() > sig.foundSize)
    __builtin_trap();  // a skip never jumps past the length it came from
  if (fn == checkRTF_FileAtBlock && accepted) {
    // The document is text read from the drive: it cannot be longer.
    if (sig.foundSize > c.bytesToDriveEnd()) __builtin_trap();
    if (sig.skipSize != state.rtfdArray.size()) __builtin_trap();
  }
  if (fn == checkRAR5_FileAtBlock && sig.foundSize > c.bytesToDriveEnd()) __builtin_trap();
  return 0;
}
