#pragma once
// A walk over the image file directories of a TIFF structure, as carved files
// hold them: plain TIFF, and the camera RAW formats built on it. It follows
// IFD0's chain and the EXIF, GPS, interoperability and SubIFD pointers (and
// any IFD a caller adds), and finds the furthest byte that any IFD, any value
// block, any strip or tile, or the embedded JPEG reaches: the file's end.
//
// Everything read is distrusted: IFDs are visited once (a loop is a visited
// offset), entry counts, value counts and the number of IFDs are capped, and
// nothing past the drive's end is read or counted.
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <vector>

#include "carving/Validator.h"

namespace ambrel {

enum class TiffIfdKind : uint8_t { Main, Chain, Exif, Gps, Interop, SubIfd, Added };

struct TiffLimits {
  uint32_t maxIfds = 512;            // IFDs visited in one walk
  uint32_t maxEntriesPerIfd = 4096;  // real files hold a few hundred at most
  uint64_t maxValuesRead = 1u << 22; // strip and tile offsets/counts read in all
};

// One directory entry as it stands in the file.
struct TiffEntry {
  uint16_t tag = 0;
  uint16_t type = 0;
  uint32_t count = 0;
  uint64_t valuePos = 0;   // where the value lies (inside the entry when it fits in 4 bytes)
  uint64_t valueBytes = 0; // count * size of the type; 0 for an unknown type
};

struct TiffIfd {
  uint64_t pos = 0;        // of the entry count, from the candidate's start
  uint16_t entryCount = 0;
  TiffIfdKind kind = TiffIfdKind::Main;
  uint32_t validTypes = 0; // entries whose type is one of 1 ... 13
};

struct TiffWalkResult {
  bool headerOk = false;
  bool bigEndian = false;
  std::vector<TiffIfd> ifds;   // in the order visited
  uint64_t end = 0;            // furthest byte reached, from the candidate's start
  bool imageDataFound = false; // strips, tiles or an embedded JPEG were counted
  bool pastDriveEnd = false;   // something pointed past the drive's end (not counted in end)
  bool capped = false;         // a limit stopped part of the walk
};

class TiffWalker {
 public:
  // base: the position of the TIFF header ("II*\0" / "MM\0*" or a maker's
  // variant) from the candidate's start; offsets inside the structure count
  // from it.
  TiffWalker(Candidate& c, uint64_t base = 0, TiffLimits limits = {});

  // Reads the byte order from the header at base ("II" or "MM") and returns
  // the IFD0 offset field; nullopt when the order mark is neither. The magic
  // number (42, or a maker's own) is the caller's to check with magic().
  std::optional<uint32_t> readHeader();
  uint16_t magic() const { return magic_; }
  bool bigEndian() const { return bigEndian_; }
  void setByteOrder(bool bigEndian) { bigEndian_ = bigEndian; }

  // Called for every entry of every IFD visited; a RAW validator picks its
  // maker's tags from here and may queue further IFDs with addIfd().
  std::function<void(const TiffIfd&, const TiffEntry&)> onEntry;

  // An IFD to visit (offset from base), e.g. a maker note's.
  void addIfd(uint64_t offset, TiffIfdKind kind = TiffIfdKind::Added);
  // A byte range known to belong to the file (from base), e.g. a preview
  // that only a maker tag points at.
  void addRange(uint64_t offset, uint64_t length);

  // Walks from IFD0 (offset from base) through everything reachable.
  TiffWalkResult walk(uint64_t ifd0Offset);

  // Unsigned values of an entry (BYTE, SHORT, LONG, LONG8 and IFD types),
  // at most `max` of them; empty for other types.
  std::vector<uint64_t> values(const TiffEntry& entry, uint32_t max);
  std::optional<uint16_t> u16(uint64_t pos);  // from the candidate's start, in the file's order
  std::optional<uint32_t> u32(uint64_t pos);

  static uint32_t typeSize(uint16_t type);

 private:
  void visit(uint64_t offset, TiffIfdKind kind, TiffWalkResult& r);
  void enqueue(uint64_t offset, TiffIfdKind kind, TiffWalkResult& r);
  void reach(uint64_t from, uint64_t length, TiffWalkResult& r);
  void countPairs(const std::vector<TiffEntry>& offsets, const std::vector<TiffEntry>& counts, TiffWalkResult& r);

  Candidate& c_;
  uint64_t base_;
  TiffLimits limits_;
  bool bigEndian_ = false;
  uint16_t magic_ = 0;
  uint64_t valuesRead_ = 0;
  std::set<uint64_t> visited_;
  std::vector<std::pair<uint64_t, TiffIfdKind>> queue_;
  std::vector<std::pair<uint64_t, uint64_t>> ranges_;
};

}  // namespace ambrel
