// A whole drive: partition table (none, MBR with extended partitions, GPT,
// Apple partition map), its volumes, and drive-level damage.
#include <algorithm>
#include <cstring>
#include <memory>

#include "Internal.h"
#include "base/Endian.h"
#include "media/Records.h"

namespace ambrel::mkimage {
namespace {

constexpr uint64_t kAlign = 2048;       // 1 MiB in sectors
constexpr uint32_t kGptEntries = 128;
constexpr uint32_t kGptEntrySectors = kGptEntries * 128 / 512;
constexpr uint32_t kApmMapBlocks = 63;  // sectors 1..63 hold the map

uint64_t roundUp(uint64_t a, uint64_t b) { return (a + b - 1) / b * b; }

bool isHfs(PartitionSpec::Kind k) { return k == PartitionSpec::Kind::HFSPlus || k == PartitionSpec::Kind::HFSX; }

const char* kindName(PartitionSpec::Kind k) {
  switch (k) {
    case PartitionSpec::Kind::HFSPlus: return "hfs+";
    case PartitionSpec::Kind::HFSX: return "hfsx";
    case PartitionSpec::Kind::Free: return "free";
    case PartitionSpec::Kind::Other: return "other";
  }
  return "other";
}

// A GUID in text form to its on-disk bytes (first three groups little-endian).
void guidBytes(const char* text, uint8_t* out) {
  uint8_t raw[16];
  int n = 0;
  for (const char* p = text; *p && n < 16; ++p) {
    if (*p == '-') continue;
    auto hex = [](char c) { return c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10; };
    raw[n++] = static_cast<uint8_t>(hex(p[0]) << 4 | hex(p[1]));
    ++p;
  }
  const int order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
  for (int i = 0; i < 16; ++i) out[i] = raw[order[i]];
}

constexpr const char* kHfsPlusGuid = "48465300-0000-11AA-AA11-00306543ECAC";
constexpr const char* kLinuxDataGuid = "0FC63DAF-8483-4772-8E79-3D69D8477DE4";

void chs(uint64_t lba, uint8_t* out) {
  uint64_t c = lba / (255 * 63), h = (lba / 63) % 255, s = lba % 63 + 1;
  if (c > 1023) { c = 1023; h = 254; s = 63; }
  out[0] = static_cast<uint8_t>(h);
  out[1] = static_cast<uint8_t>(s | ((c >> 2) & 0xC0));
  out[2] = static_cast<uint8_t>(c & 0xFF);
}

void mbrEntry(uint8_t* sector, int slot, uint8_t type, uint64_t absStart, uint64_t relStart, uint64_t count) {
  using E = Fdisk_Partition_Table;
  uint8_t* e = sector + offsetof(MasterBootRecord, partitions) + sizeof(E) * slot;
  e[offsetof(E, bootIndicator)] = 0;
  chs(absStart, e + offsetof(E, startHead));
  e[offsetof(E, systemID)] = type;
  chs(absStart + count - 1, e + offsetof(E, endHead));
  storeLE32(e + offsetof(E, relativeSector), static_cast<uint32_t>(relStart));
  storeLE32(e + offsetof(E, numberOfSectors), static_cast<uint32_t>(count));
}

void bootSignature(uint8_t* sector) { storeLE16(sector + offsetof(MasterBootRecord, bootSignature), 0xAA55); }

struct Planned {
  const PartitionSpec* spec = nullptr;
  std::string name;
  std::unique_ptr<VolumeBuilder> builder;
  uint64_t start = 0, sectors = 0, ebr = 0;
};

// Volumes left at the default creation date get dates a day apart, since a
// header search tells volumes apart by their creation dates.
VolumeSpec volumeFor(const PartitionSpec& p, size_t index) {
  VolumeSpec v = p.volume ? *p.volume : VolumeSpec{};
  if (v.created == VolumeSpec{}.created) v.created += static_cast<HfsDate>(index * 86400);
  if (!p.volume && !p.name.empty()) v.name = p.name;
  if (p.kind == PartitionSpec::Kind::HFSX) v.hfsx = true;
  return v;
}

}  // namespace

DriveLayout buildImage(const DriveSpec& spec, const std::filesystem::path& out) {
  DriveLayout layout;
  layout.table = spec.table;

  if (spec.table == TableKind::None) {
    if (!spec.volume) throw BuildError("a drive without a partition table needs a volume");
    VolumeBuilder vb(*spec.volume);
    uint64_t sectors = spec.sizeBytes ? spec.sizeBytes / 512 : vb.minimumSectors();
    ImageFile image(out, sectors * 512);
    layout.volume = vb.write(image, 0, sectors);
    layout.sizeBytes = image.size();
    if (spec.truncateToBytes && spec.truncateToBytes < image.size()) image.truncate(spec.truncateToBytes);
    layout.sizeBytes = image.size();
    return layout;
  }

  // Place partitions: primaries in order, then the logical ones (MBR) inside
  // one extended partition at the end, each behind its own boot record.
  std::vector<Planned> planned;
  for (size_t i = 0; i < spec.partitions.size(); ++i) {
    const PartitionSpec& p = spec.partitions[i];
    Planned pl{};
    pl.spec = &p;
    pl.name = p.name.empty() && isHfs(p.kind) ? volumeFor(p, i).name : p.name;
    if (isHfs(p.kind)) pl.builder = std::make_unique<VolumeBuilder>(volumeFor(p, i));
    if (p.logical && spec.table != TableKind::MBR) throw BuildError("logical partitions exist only in an MBR");
    pl.sectors = p.sizeSectors ? p.sizeSectors : (pl.builder ? roundUp(pl.builder->minimumSectors(), kAlign) : kAlign);
    if (p.volume && p.volume->sizeBytes > pl.sectors * 512) throw BuildError("partition smaller than its volume");
    planned.push_back(std::move(pl));
  }
  std::stable_partition(planned.begin(), planned.end(), [](const Planned& p) { return !p.spec->logical; });
  uint64_t cursor = spec.table == TableKind::APM ? 1 + kApmMapBlocks : kAlign;
  uint64_t extendedStart = 0;
  for (auto& pl : planned) {
    if (pl.spec->logical) {
      cursor = roundUp(cursor, kAlign);
      if (!extendedStart) extendedStart = cursor;
      pl.ebr = cursor;
      cursor += kAlign;
    }
    if (pl.spec->startSector) {
      if (pl.spec->startSector < cursor) throw BuildError("partitions overlap or are out of order");
      cursor = pl.spec->startSector;
    } else if (spec.table != TableKind::APM) {
      cursor = roundUp(cursor, kAlign);
    }
    pl.start = cursor;
    cursor += pl.sectors;
  }
  uint64_t tail = spec.table == TableKind::GPT ? 1 + kGptEntrySectors : 0;
  uint64_t driveSectors = spec.sizeBytes ? spec.sizeBytes / 512 : roundUp(cursor + tail, kAlign);
  if (driveSectors < cursor + tail) throw BuildError("drive too small for its partitions");
  size_t primaries = 0;
  for (const auto& pl : planned)
    if (!pl.spec->logical && pl.spec->kind != PartitionSpec::Kind::Free) ++primaries;
  if (spec.table == TableKind::MBR && primaries + (extendedStart ? 1 : 0) > 4)
    throw BuildError("an MBR holds four primary partitions at most");
  if (spec.table == TableKind::MBR && driveSectors > 0xFFFFFFFFULL) throw BuildError("an MBR addresses 2 TiB at most");

  ImageFile image(out, driveSectors * 512);
  std::vector<uint8_t> sector(512, 0);
  std::vector<uint64_t> tableSectors;  // what wiping the table clears

  if (spec.table == TableKind::MBR) {
    int slot = 0;
    for (const auto& pl : planned) {
      if (pl.spec->logical || pl.spec->kind == PartitionSpec::Kind::Free) continue;
      uint8_t type = pl.spec->mbrType ? pl.spec->mbrType : (isHfs(pl.spec->kind) ? 0xAF : 0x83);
      mbrEntry(sector.data(), slot++, type, pl.start, pl.start, pl.sectors);
    }
    std::vector<const Planned*> logicals;
    for (const auto& pl : planned)
      if (pl.spec->logical) logicals.push_back(&pl);
    if (!logicals.empty()) {
      uint64_t extEnd = logicals.back()->start + logicals.back()->sectors;
      mbrEntry(sector.data(), slot++, spec.extendedType, extendedStart, extendedStart, extEnd - extendedStart);
      for (size_t i = 0; i < logicals.size(); ++i) {
        const Planned& l = *logicals[i];
        std::vector<uint8_t> ebr(512, 0);
        uint8_t type = l.spec->mbrType ? l.spec->mbrType : (isHfs(l.spec->kind) ? 0xAF : 0x83);
        mbrEntry(ebr.data(), 0, type, l.start, l.start - l.ebr, l.sectors);
        if (i + 1 < logicals.size()) {
          const Planned& n = *logicals[i + 1];
          mbrEntry(ebr.data(), 1, spec.extendedType, n.ebr, n.ebr - extendedStart, n.start + n.sectors - n.ebr);
        }
        bootSignature(ebr.data());
        image.write(l.ebr * 512, ebr.data(), 512);
        tableSectors.push_back(l.ebr);
        layout.ebrSectors.push_back(l.ebr);
      }
    }
    bootSignature(sector.data());
    image.write(0, sector.data(), 512);
    tableSectors.push_back(0);
  } else if (spec.table == TableKind::GPT) {
    mbrEntry(sector.data(), 0, 0xEE, 1, 1, std::min<uint64_t>(driveSectors - 1, 0xFFFFFFFFULL));
    uint8_t* protective = &sector[offsetof(MasterBootRecord, partitions)];
    protective[offsetof(Fdisk_Partition_Table, startHead)] = 0;  // CHS 0/0/2, as tools write it
    protective[offsetof(Fdisk_Partition_Table, startSector)] = 2;
    protective[offsetof(Fdisk_Partition_Table, startCylinder)] = 0;
    bootSignature(sector.data());
    image.write(0, sector.data(), 512);
    std::vector<uint8_t> entries(kGptEntries * 128, 0);
    uint64_t rng = 0x6770ULL + driveSectors;
    auto randomGuid = [&](uint8_t* g) {
      uint64_t a = splitmix64(rng), b = splitmix64(rng);
      std::memcpy(g, &a, 8);
      std::memcpy(g + 8, &b, 8);
      g[7] = static_cast<uint8_t>((g[7] & 0x0F) | 0x40);
      g[8] = static_cast<uint8_t>((g[8] & 0x3F) | 0x80);
    };
    size_t n = 0;
    for (const auto& pl : planned) {
      if (pl.spec->kind == PartitionSpec::Kind::Free) continue;
      if (n >= kGptEntries) throw BuildError("too many GPT partitions");
      using E = GUIDPartitionTableEntry;
      uint8_t* e = &entries[sizeof(E) * n++];
      guidBytes(isHfs(pl.spec->kind) ? kHfsPlusGuid : kLinuxDataGuid, e + offsetof(E, typeGUIDHigh));
      randomGuid(e + offsetof(E, uniqueGUID));
      storeLE64(e + offsetof(E, startingLBA), pl.start);
      storeLE64(e + offsetof(E, endingLBA), pl.start + pl.sectors - 1);
      std::u16string uname = utf8ToUtf16(pl.name);
      for (size_t i = 0; i < uname.size() && i < 36; ++i) storeLE16(e + offsetof(E, partitionName) + 2 * i, uname[i]);
    }
    uint32_t entriesCrc = crc32Of(entries.data(), entries.size());
    uint8_t diskGuid[16];
    randomGuid(diskGuid);
    auto header = [&](uint64_t my, uint64_t alt, uint64_t entryLba) {
      using G = GUIDPartitionTableHeader;
      std::vector<uint8_t> h(sizeof(G), 0);
      auto at = [&](size_t offset) { return &h[offset]; };
      std::memcpy(at(offsetof(G, signature)), "EFI PART", 8);
      storeLE32(at(offsetof(G, revision)), 0x00010000);
      storeLE32(at(offsetof(G, headerSize)), 92);
      storeLE64(at(offsetof(G, myLBA)), my);
      storeLE64(at(offsetof(G, alternateLBA)), alt);
      storeLE64(at(offsetof(G, firstUsableLBA)), 2 + kGptEntrySectors);
      storeLE64(at(offsetof(G, lastUsableLBA)), driveSectors - 2 - kGptEntrySectors);
      std::memcpy(at(offsetof(G, diskGUID)), diskGuid, 16);
      storeLE64(at(offsetof(G, partitionEntryLBA)), entryLba);
      storeLE32(at(offsetof(G, numberOfPartitionEntries)), kGptEntries);
      storeLE32(at(offsetof(G, sizeOfPartitionEntry)), sizeof(GUIDPartitionTableEntry));
      storeLE32(at(offsetof(G, partitionEntryArrayCRC32)), entriesCrc);
      storeLE32(at(offsetof(G, headerCRC32)), crc32Of(h.data(), 92));
      return h;
    };
    image.write(512, header(1, driveSectors - 1, 2).data(), 512);
    image.write(2 * 512, entries.data(), entries.size());
    image.write((driveSectors - 1 - kGptEntrySectors) * 512, entries.data(), entries.size());
    image.write((driveSectors - 1) * 512, header(driveSectors - 1, 1, driveSectors - 1 - kGptEntrySectors).data(), 512);
    for (uint64_t s = 0; s < 2 + kGptEntrySectors; ++s) tableSectors.push_back(s);
    for (uint64_t s = driveSectors - 1 - kGptEntrySectors; s < driveSectors; ++s) tableSectors.push_back(s);
  } else {
    // Apple partition map: the map itself, then one entry per partition and
    // one Apple_Free entry per gap (and for the space after the last one).
    struct ApmEntry { uint64_t start, count; std::string name, type; };
    std::vector<ApmEntry> map{{1, kApmMapBlocks, "Apple", "Apple_partition_map"}};
    uint64_t at = 1 + kApmMapBlocks;
    for (const auto& pl : planned) {
      if (pl.start > at) map.push_back({at, pl.start - at, "Extra", "Apple_Free"});
      std::string type = pl.spec->apmType;
      if (type.empty()) {
        switch (pl.spec->kind) {
          case PartitionSpec::Kind::HFSPlus: type = "Apple_HFS"; break;
          case PartitionSpec::Kind::HFSX: type = "Apple_HFSX"; break;
          case PartitionSpec::Kind::Free: type = "Apple_Free"; break;
          case PartitionSpec::Kind::Other: type = "Apple_UNIX_SVR2"; break;
        }
      }
      map.push_back({pl.start, pl.sectors, pl.name.empty() ? "Extra" : pl.name, type});
      at = pl.start + pl.sectors;
    }
    if (driveSectors > at) map.push_back({at, driveSectors - at, "Extra", "Apple_Free"});
    if (map.size() > kApmMapBlocks) throw BuildError("too many partition map entries");
    std::vector<uint8_t> ddr(512, 0);
    storeBE16(&ddr[0], 0x4552);  // 'ER'
    storeBE16(&ddr[2], 512);
    storeBE32(&ddr[4], static_cast<uint32_t>(driveSectors));
    image.write(0, ddr.data(), 512);
    tableSectors.push_back(0);
    for (size_t i = 0; i < map.size(); ++i) {
      using P = PartitionMap;
      std::vector<uint8_t> pm(sizeof(P), 0);
      storeBE16(&pm[offsetof(P, pmSig)], kPartitionMapSignature);
      storeBE32(&pm[offsetof(P, pmMapBlkCnt)], static_cast<uint32_t>(map.size()));
      storeBE32(&pm[offsetof(P, pmPyPartStart)], static_cast<uint32_t>(map[i].start));
      storeBE32(&pm[offsetof(P, pmPartBlkCnt)], static_cast<uint32_t>(map[i].count));
      std::memcpy(&pm[offsetof(P, pmPartName)], map[i].name.data(), std::min<size_t>(31, map[i].name.size()));
      std::memcpy(&pm[offsetof(P, pmParType)], map[i].type.data(), std::min<size_t>(31, map[i].type.size()));
      // In the rest of the entry: data area length (pmDataCnt) and status (pmPartStatus).
      storeBE32(&pm[offsetof(P, rest) + 4], static_cast<uint32_t>(map[i].count));
      storeBE32(&pm[offsetof(P, rest) + 8], map[i].type == "Apple_Free" ? 0 : (i == 0 ? 0x3 : 0x40000033));
      image.write((1 + i) * 512, pm.data(), 512);
      tableSectors.push_back(1 + i);
    }
  }

  for (auto& pl : planned) {
    PartitionLayout p;
    p.startSector = pl.start;
    p.sizeSectors = pl.sectors;
    p.type = kindName(pl.spec->kind);
    p.logical = pl.spec->logical;
    p.tableSector = pl.ebr;
    p.name = pl.name;
    if (pl.builder) p.volume = pl.builder->write(image, pl.start, pl.sectors);
    layout.partitions.push_back(std::move(p));
  }

  if (spec.wipePartitionTable)
    for (uint64_t s : tableSectors) image.zero(s * 512, 512);
  if (spec.truncateToBytes && spec.truncateToBytes < image.size()) image.truncate(spec.truncateToBytes);
  layout.sizeBytes = image.size();
  return layout;
}

}  // namespace ambrel::mkimage
