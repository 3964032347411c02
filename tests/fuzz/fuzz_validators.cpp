// Every validator over arbitrary bytes standing for a drive: the first byte
// picks the file-type code and the block size, the rest is the drive, the
// candidate at its first block. Answers must stay bounded: a length a
// validator reports may be anything, but no read may leave the drive and no
// walk may run away. The picture-size reader and the TIFF walker get the same
// bytes.
#include <cstdint>
#include <vector>

#include "carving/ImageSize.h"
#include "carving/TiffWalker.h"
#include "carving/Validators.h"

using namespace ambrel;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  const uint32_t code = data[0] % (kHighestValidatorCode + 1);
  const int32_t blockSize = (data[0] & 0x80) ? 8 : 1;
  std::span<const uint8_t> drive(data + 1, size - 1);
  MemorySectorSource source(drive);
  SearchState state;
  Sig sig;
  sig.userSize = 1 << 20;
  sig.extension = "x";
  CarveGeometry geometry{0, blockSize, source.sectorCount() / uint64_t(blockSize) + 1, 0};
  if (ValidatorFn fn = builtInValidators().forCode(code)) {
    Candidate c(source, geometry, 0, state);
    fn(c, sig);
    if (sig.skipFileSize && sig.skipSize != 0 && uint64_t{sig.skipSize} * c.blockBytes() > sig.foundSize)
      __builtin_trap();  // a skip never jumps past the length it came from
  }
  {
    Candidate c(source, geometry, 0, state);
    TiffWalker walker(c);
    if (auto ifd0 = walker.readHeader()) {
      const TiffWalkResult r = walker.walk(*ifd0);
      if (r.end > c.bytesToDriveEnd() || r.ifds.size() > TiffLimits{}.maxIfds) __builtin_trap();
    }
  }
  if (auto s = readImageSize(drive)) (void)s->widthPoints();
  return 0;
}
