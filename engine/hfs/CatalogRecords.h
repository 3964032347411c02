#pragma once
// One record of a catalog leaf node, located and checked without trusting
// anything the node says. The checks tell apart a record that is merely
// skipped from one whose failure means the rest of the node is not worth
// reading (a candidate node found by searching the disk).
#include <cstdint>
#include <span>
#include <string>

#include "media/Records.h"

namespace ambrel {

enum class RecordCheck { Ok, SkipRecord, AbandonNode };

struct CatalogRecordView {
  RecordCheck check = RecordCheck::SkipRecord;
  uint32_t parentID = 0;
  std::string name;
  int16_t recordType = 0;

  bool ok() const { return check == RecordCheck::Ok; }
  // The record behind the key, converted to host order; false when it does
  // not end before `limit`.
  bool folder(HFSPlusCatalogFolder_& out) const;
  bool file(HFSPlusCatalogFile_& out) const;
  // A thread record's parent ID and name (the key's parent ID is the ID it
  // stands for); false when they do not fit or are empty.
  bool thread(uint32_t& parent, std::string& threadName) const;

  std::span<const uint8_t> node;
  size_t bodyOffset = 0;
  size_t limit = 0;
};

// Record `index` of a leaf node of node.size() bytes holding numRecords.
// Checked mode (records of nodes not reached through an intact chain):
// the offset slot must lie in the node's last 512 bytes, the offset be at
// least 14, key length 6..516, key and record before the offset table (and
// its free-space slot), parent
// ID non-zero. Only failures of place and length abandon the node; a record
// whose content fails (parent ID, name length, key length) is skipped alone.
// Unchecked mode keeps only what memory safety needs.
CatalogRecordView catalogRecordAt(std::span<const uint8_t> node, uint32_t numRecords, uint32_t index, bool checked);

// The hidden folder at the root that keeps hard-link targets and what was
// deleted while still open. Its name starts with four U+0000 as written;
// some tools show them as U+2000.
bool privateDataFolderName(const std::string& name);
// A file or folder deleted while open is moved into that folder as
// "temp<its ID>" until closed; the journal may still hold its real name.
bool openDeletedName(const std::string& name, uint32_t id);

// Dates, ID and type of a record found outside an intact chain.
bool plausibleFolderRecord(const HFSPlusCatalogFolder_& f);
bool plausibleFileRecord(const HFSPlusCatalogFile_& f);

}  // namespace ambrel
