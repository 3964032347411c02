// What the tables show, and the texts the pages share.
#include <fmt/format.h>

#include <ctime>

#include "core/ControllerInternal.h"

namespace ambrel {

namespace {

constexpr int64_t kHfsToUnix = 2082844800;

const PlistDict* rowOf(const PlistArray& list, int row) {
  if (row < 0 || static_cast<size_t>(row) >= list.size()) return nullptr;
  return list[static_cast<size_t>(row)].dict();
}

std::string valueText(const PlistDict& d, const char* key) {
  const PlistValue* v = d.find(key);
  return v ? v->describe() : std::string();
}

// "Start Sector", "Size" and "Volume Name" of a partition or found volume.
std::string volumeCell(const PlistDict& d, const std::string& column) {
  if (column == "Volume Name") return d.string("Volume Name");
  if (column == "Start Sector") return valueText(d, "Volume Start");
  if (column == "Size") return sizeText(d.u64("Volume Size In Sectors") * 512);
  return {};
}

}  // namespace

std::string sizeTextOrZero(uint64_t bytes) { return bytes == 0 ? "0 KB" : sizeText(bytes); }

std::string outlineDateText(uint32_t hfsSeconds) {
  if (hfsSeconds == 0) return " - ";
  const std::time_t t = static_cast<std::time_t>(int64_t{hfsSeconds} - kHfsToUnix);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[40];
  std::strftime(buf, sizeof buf, "%Y-%m-%d %H:%M:%S +0000", &tm);
  return buf;
}

int AppController::tableRowCount(Table table) const {
  switch (table) {
    case Table::Drives: return static_cast<int>(driveDictArray().size());
    case Table::Volumes: return static_cast<int>(volumeDictArray().size());
    case Table::Partitions: return static_cast<int>(partitionListDictArray_.size());
    case Table::FoundVolumes: return static_cast<int>(volumeScanFoundArray_.size());
    case Table::PartitionScanList: return static_cast<int>(partitionScanListDictArray_.size());
  }
  return 0;
}

std::string AppController::tableCellText(Table table, int row, const std::string& column) const {
  switch (table) {
    case Table::Drives: {
      const PlistArray drives = driveDictArray();
      const PlistDict* d = rowOf(drives, row);
      if (!d) return {};
      if (column == "Drives") return driveModelText(*d);
      if (column == "Serial") return driveSerialText(*d);
      if (column == "Size") return sizeText(d->u64("device size"));
      return {};
    }
    case Table::Volumes: {
      const PlistArray volumes = volumeDictArray();
      const PlistDict* d = rowOf(volumes, row);
      if (!d) return {};
      if (column == "Volumes") return d->string("Volume Name");
      if (column == "File System") return fileSystemText(d->string("Content"));
      if (column == "Size") return sizeText(d->u64("device size"));
      if (column == "Journal") return d->string("Journaled") == "Yes" ? "Journaled" : "";
      return {};
    }
    case Table::Partitions: {
      const PlistDict* d = rowOf(partitionListDictArray_, row);
      if (!d) return {};
      if (column == "Found") return d->string("Found Column");
      if (column == "Validity") return d->string("Validity Column");
      return volumeCell(*d, column);
    }
    case Table::FoundVolumes: {
      const PlistDict* d = rowOf(volumeScanFoundArray_, row);
      if (!d) return {};
      if (column == "Found") return d->string("Found Column");
      if (column == "Validity") return d->string("Validity Column");
      return {};
    }
    case Table::PartitionScanList: {
      const PlistDict* d = rowOf(partitionScanListDictArray_, row);
      if (!d) return {};
      const uint64_t start = d->u64("Volume Start");
      // The search's row for this start, which holds its grade.
      const PlistDict* found = nullptr;
      for (const auto& r : volumeScanFoundArray_)
        if (const PlistDict* rd = r.dict(); rd && rd->string("Found Column") == fmt::format("Volume Found At Sector: {}", start))
          found = rd;
      if (column == "Found") return found ? found->string("Found Column") : fmt::format("Volume Found At Sector: {}", start);
      if (column == "Validity") {
        const std::string grade = found ? found->string("Validity Column") : "";
        const std::string percent = d->contains("Volume Validity") ? valueText(*d, "Volume Validity") + "%" : "";
        if (grade.empty()) return percent;
        return percent.empty() ? grade : grade + " (" + percent + ")";
      }
      return volumeCell(*d, column);
    }
  }
  return {};
}

}  // namespace ambrel
