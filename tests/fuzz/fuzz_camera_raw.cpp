// The camera RAW validators over arbitrary bytes standing for a drive: the
// first byte picks the validator and the block size. IFD loops, maker notes
// pointing anywhere and block lists of any length must give a bounded answer,
// and a length that reaches past the drive is never reported.
#include <cstdint>
#include <span>

#include "carving/Validators.h"

using namespace ambrel;

namespace {

constexpr ValidatorFn kValidators[] = {checkCR2FileAtBlock, checkNEF_FileAtBlock, checkSONY_RAWFileAtBlock,
                                       checkMRWFileAtBlock, checkORF_FileAtBlock};

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
  CarveGeometry geometry{0, blockSize, source.sectorCount() / uint64_t(blockSize) + 1, 0};
  Candidate c(source, geometry, 0, state);
  if (fn(c, sig) && sig.foundSize > c.bytesToDriveEnd()) __builtin_trap();
  return 0;
}
