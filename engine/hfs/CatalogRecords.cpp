#include "hfs/CatalogRecords.h"

#include <cstdio>
#include <cstring>
#include <string_view>

#include "base/Endian.h"
#include "media/NodeChecks.h"

namespace ambrel {

namespace {

constexpr size_t kKeyHeaderBytes = 8;  // key length, parent ID, name length
constexpr uint16_t kMinKeyLength = 6;
constexpr uint16_t kMaxKeyLength = 516;

template <class T>
bool copyRecord(const CatalogRecordView& v, T& out) {
  if (v.bodyOffset > v.limit || v.limit - v.bodyOffset < sizeof(T)) return false;
  std::memcpy(&out, v.node.data() + v.bodyOffset, sizeof(T));
  return true;
}

}  // namespace

bool CatalogRecordView::folder(HFSPlusCatalogFolder_& out) const {
  if (!copyRecord(*this, out)) return false;
  convertHPlusCatalogFolder(&out);
  return true;
}

bool CatalogRecordView::file(HFSPlusCatalogFile_& out) const {
  if (!copyRecord(*this, out)) return false;
  convertHPlusCatalogFile(&out);
  return true;
}

CatalogRecordView catalogRecordAt(std::span<const uint8_t> node, uint32_t numRecords, uint32_t index, bool checked) {
  CatalogRecordView v;
  v.node = node;
  const size_t nodeBytes = node.size();
  auto abandon = [&] {
    v.check = checked ? RecordCheck::AbandonNode : RecordCheck::SkipRecord;
    return v;
  };
  auto skip = [&] {
    v.check = RecordCheck::SkipRecord;
    return v;
  };

  const uint64_t table = 2ULL * numRecords;
  if (nodeBytes < 512 || table + 14 > nodeBytes || index >= numRecords) return abandon();
  const size_t slot = nodeBytes - 2 - 2 * static_cast<size_t>(index);
  if (checked && slot < nodeBytes - 512) return abandon();
  // Everything must end before the offset table and its free-space slot. A
  // full node's last record ends right there, so nothing tighter is asked.
  v.limit = static_cast<size_t>(nodeBytes - table - 2);
  const size_t offset = loadBE16(&node[slot]);
  if (offset < 14) return abandon();
  if (offset + 2 > v.limit) return abandon();
  const uint16_t keyLength = loadBE16(&node[offset]);
  if (checked && (keyLength < kMinKeyLength || keyLength > kMaxKeyLength)) return skip();
  if (!checked && keyLength < kMinKeyLength) return skip();
  if (offset + kKeyHeaderBytes > v.limit || offset + 2 + keyLength > v.limit) return abandon();
  v.parentID = loadBE32(&node[offset + 2]);
  if (checked && v.parentID == 0) return skip();  // content, not structure
  const uint16_t nameLength = loadBE16(&node[offset + 6]);
  if (nameLength > 255) return skip();
  if (offset + kKeyHeaderBytes + 2 * size_t{nameLength} > v.limit) return abandon();
  v.name = utf16BigToUtf8(&node[offset + kKeyHeaderBytes], nameLength);
  v.bodyOffset = offset + 2 + keyLength;
  if (v.bodyOffset + 2 > v.limit) return abandon();
  v.recordType = static_cast<int16_t>(loadBE16(&node[v.bodyOffset]));
  // Only a thread record's key has no name.
  if (nameLength == 0 && v.recordType != kHFSPlusFolderThreadRecord && v.recordType != kHFSPlusFileThreadRecord)
    return skip();
  v.check = RecordCheck::Ok;
  return v;
}

bool CatalogRecordView::thread(uint32_t& parent, std::string& threadName) const {
  // Record type, reserved, parent ID, then the name's length and characters.
  constexpr size_t kThreadHeader = 10;
  if (bodyOffset > limit || limit - bodyOffset < kThreadHeader) return false;
  const uint8_t* p = node.data() + bodyOffset;
  const uint16_t length = loadBE16(p + 8);
  if (length == 0 || length > 255 || limit - bodyOffset - kThreadHeader < 2 * size_t{length}) return false;
  parent = loadBE32(p + 4);
  threadName = utf16BigToUtf8(p + kThreadHeader, length);
  return parent != 0;
}

bool privateDataFolderName(const std::string& name) {
  static const std::string kNul = std::string(4, '\0') + "HFS+ Private Data";
  static const std::string kQuad = "\xE2\x80\x80\xE2\x80\x80\xE2\x80\x80\xE2\x80\x80HFS+ Private Data";
  return name == kNul || name == kQuad;
}

bool openDeletedName(const std::string& name, uint32_t id) {
  constexpr std::string_view kPrefix = "temp";
  if (name.size() <= kPrefix.size() || name.compare(0, kPrefix.size(), kPrefix) != 0) return false;
  char digits[16];
  const int n = std::snprintf(digits, sizeof digits, "%u", id);
  return name.compare(kPrefix.size(), std::string::npos, digits, static_cast<size_t>(n)) == 0;
}

bool plausibleFolderRecord(const HFSPlusCatalogFolder_& f) {
  return f.accessDate != 0 && f.contentModDate != 0 && f.createDate != 0 && f.folderID != 0 &&
         f.recordType == kHFSPlusFolderRecord;
}

bool plausibleFileRecord(const HFSPlusCatalogFile_& f) {
  return f.accessDate != 0 && f.contentModDate != 0 && f.createDate != 0 && f.fileID != 0 &&
         f.recordType == kHFSPlusFileRecord;
}

}  // namespace ambrel
