#include "output/AppleDouble.h"

#include <cstring>

#include "base/Endian.h"

namespace ambrel {

namespace {
// No real sidecar holds more than a handful of entries; this bounds the parse.
constexpr uint16_t kMaxAppleDoubleEntries = 64;
constexpr char kFiller[16] = {'M', 'a', 'c', ' ', 'O', 'S', ' ', 'X', ' ', ' ', ' ', ' ', ' ', ' ', ' ', ' '};
}  // namespace

std::vector<uint8_t> appleDoubleHeader(uint64_t rsrcLength) {
  std::vector<uint8_t> h(kAppleDoubleHeaderSize, 0);
  storeBE32(&h[0], kAppleDoubleMagic);
  storeBE32(&h[4], kAppleDoubleVersion2);
  std::memcpy(&h[8], kFiller, sizeof kFiller);
  h[24] = 0;
  h[25] = 2;
  const uint32_t finderOffset = 26 + 2 * 12;
  storeBE32(&h[26], kAppleDoubleFinderInfo);
  storeBE32(&h[30], finderOffset);
  storeBE32(&h[34], kFinderInfoSize);
  storeBE32(&h[38], kAppleDoubleResourceFork);
  storeBE32(&h[42], static_cast<uint32_t>(kAppleDoubleHeaderSize));
  // A fork of 4 GiB or more cannot be described; HFS+ resource forks never are.
  storeBE32(&h[kAppleDoubleRsrcLengthOffset], rsrcLength > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(rsrcLength));
  return h;
}

const AppleDoubleEntry* AppleDoubleFile::find(uint32_t id) const {
  for (const auto& e : entries)
    if (e.id == id) return &e;
  return nullptr;
}

std::optional<AppleDoubleFile> parseAppleDouble(const uint8_t* data, size_t size) {
  if (!data || size < 26) return std::nullopt;
  const uint32_t magic = loadBE32(data);
  if (magic != kAppleDoubleMagic && magic != 0x00051600) return std::nullopt;
  AppleDoubleFile file;
  file.version = loadBE32(data + 4);
  if (file.version != kAppleDoubleVersion2 && file.version != 0x00010000) return std::nullopt;
  const uint16_t count = static_cast<uint16_t>(data[24] << 8 | data[25]);
  if (count > kMaxAppleDoubleEntries || 26 + size_t{count} * 12 > size) return std::nullopt;
  for (uint16_t i = 0; i < count; ++i) {
    const uint8_t* d = data + 26 + size_t{i} * 12;
    AppleDoubleEntry e{loadBE32(d), loadBE32(d + 4), loadBE32(d + 8)};
    if (uint64_t{e.offset} + e.length > size) return std::nullopt;
    file.entries.push_back(e);
  }
  return file;
}

}  // namespace ambrel
