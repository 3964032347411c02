// Records of the attributes B-tree: inline data attributes only.
#include <algorithm>
#include <cstring>

#include "Internal.h"
#include "base/Endian.h"

namespace ambrel::mkimage {

namespace {

constexpr uint32_t kInlineDataRecord = 0x10;

size_t keyBytes(const AttrRecord& r) { return 14 + 2 * r.name.size(); }

size_t writeKey(const AttrRecord& r, uint8_t* p) {
  storeBE16(p, static_cast<uint16_t>(keyBytes(r) - 2));
  storeBE16(p + 2, 0);
  storeBE32(p + 4, r.fileID);
  storeBE32(p + 8, 0);
  storeBE16(p + 12, static_cast<uint16_t>(r.name.size()));
  for (size_t i = 0; i < r.name.size(); ++i) storeBE16(p + 14 + 2 * i, r.name[i]);
  return keyBytes(r);
}

// Record bodies start on an even offset: the key is always even, and the
// value is padded to an even length.
size_t recordBytes(const AttrRecord& r) { return keyBytes(r) + 16 + ((r.value->size() + 1) & ~size_t{1}); }

}  // namespace

void sortAttributes(std::vector<AttrRecord>& records) {
  std::sort(records.begin(), records.end(), [](const AttrRecord& a, const AttrRecord& b) {
    if (a.fileID != b.fileID) return a.fileID < b.fileID;
    return a.name < b.name;
  });
  for (size_t i = 1; i < records.size(); ++i)
    if (records[i].fileID == records[i - 1].fileID && records[i].name == records[i - 1].name)
      throw BuildError("an entry has two attributes of the same name");
}

BTreeSource attributesSource(const std::vector<AttrRecord>& records) {
  BTreeSource s;
  s.count = records.size();
  s.leafSize = [&records](size_t i) { return recordBytes(records[i]); };
  s.indexKeySize = [&records](size_t i) { return keyBytes(records[i]); };
  s.indexKey = [&records](size_t i, uint8_t* p) { return writeKey(records[i], p); };
  s.leafRecord = [&records](size_t i, uint8_t* p) {
    const AttrRecord& r = records[i];
    uint8_t* d = p + writeKey(r, p);
    std::memset(d, 0, 16);
    storeBE32(d, kInlineDataRecord);
    storeBE32(d + 12, static_cast<uint32_t>(r.value->size()));
    if (!r.value->empty()) std::memcpy(d + 16, r.value->data(), r.value->size());
    if (r.value->size() % 2) d[16 + r.value->size()] = 0;
    return recordBytes(r);
  };
  return s;
}

}  // namespace ambrel::mkimage
