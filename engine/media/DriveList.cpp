#include "media/DriveList.h"

#include <cstring>

#include "base/Endian.h"
#include "media/DMedia.h"
#include "media/DriveFinder.h"
#include "media/Records.h"

namespace ambrel {

namespace {

constexpr uint32_t kJournaledBit = 1u << 13;

std::string trimmed(const std::string& s) {
  const size_t first = s.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return s.substr(first, s.find_last_not_of(" \t") - first + 1);
}

// Reads the volume header of a mounted partition and records what it says.
void readMountedHeader(PlistDict& medium, const SectorReader& read) {
  const std::string path = medium.string("device path");
  uint8_t sector[kSectorSize] = {};
  if (!read(path, 2, sector)) return;
  uint16_t signature = loadBE16(sector);
  if (signature == kHFSSigWord) {
    MasterDirectoryBlock mdb;
    std::memcpy(&mdb, sector, sizeof mdb);
    convertMDB(&mdb);
    if (mdb.drEmbedSigWord == kHFSPlusSigWord || mdb.drEmbedSigWord == kHFSXSigWord) {
      const uint64_t embedded = uint64_t{mdb.drAlBlSt} +
                                uint64_t{mdb.drAlBlkSiz / kSectorSize} * mdb.drEmbedExtent.xdrStABN + 2;
      if (!read(path, embedded, sector)) return;
      signature = loadBE16(sector);
    }
  }
  if (medium.string("Content") == "Apple_HFS" && signature == kHFSXSigWord) medium.set("Content", "Apple_HFSX");
  // For a wrapper these are the attributes of the sector read last, as built.
  medium.set("Journaled", (loadBE32(sector + 4) & kJournaledBit) ? "Yes" : "No");
}

}  // namespace

SectorReader quietSectorReader() {
  return [](const std::string& path, uint64_t sector, uint8_t* buffer) {
    return readAppSector(nullptr, sector, path, 1, buffer);
  };
}

void joinMountedVolumes(PlistArray& responseFindMedia, const PlistArray& finalArrayForVolumes, const SectorReader& read) {
  for (auto& m : responseFindMedia) {
    PlistDict* medium = m.dict();
    if (!medium || !medium->contains("WhetherVolume")) continue;
    const std::string path = medium->string("device path");
    for (const auto& v : finalArrayForVolumes) {
      const PlistDict* volume = v.dict();
      if (!volume || volume->string("Volume Path") != path) continue;
      medium->set("Volume Name", volume->string("Volume Name"));
      readMountedHeader(*medium, read);
      break;
    }
  }
}

void truncateDriveModelNumber(PlistArray& responseFindMedia) {
  for (auto& m : responseFindMedia) {
    PlistDict* d = m.dict();
    if (!d || d->contains("WhetherVolume")) continue;
    if (d->contains("WhetherUSB") && !d->contains("WhetherSATA")) continue;
    for (const char* key : {"device model", "device serial"}) {
      const PlistValue* v = d->find(key);
      d->set(key, v && v->string() ? trimmed(*v->string()) : std::string("-"));
    }
  }
}

void separateDrvVol(const PlistArray& responseFindMedia, PlistArray& driveDictArray, PlistArray& volumeDictArray) {
  PlistArray volumes;
  for (const auto& m : responseFindMedia) {
    const PlistDict* medium = m.dict();
    if (!medium) continue;
    PlistDict d = *medium;
    if (d.contains("WhetherVolume")) {
      if (!d.contains("Volume Name")) d.set("Volume Name", "-");
      volumes.push_back(std::move(d));
    } else {
      d.set("WhetherDiskDict", true);
      driveDictArray.push_back(std::move(d));
    }
  }
  // A substring test, not a prefix or name test: /dev/sdb also keeps /dev/sdba1.
  for (auto& v : volumes) {
    const std::string path = v.dict()->string("device path");
    bool claimed = false;
    for (const auto& drive : driveDictArray) {
      const std::string drivePath = drive.dict()->string("device path");
      if (path.find(drivePath) != std::string::npos) {
        claimed = true;
        break;
      }
    }
    if (claimed) volumeDictArray.push_back(std::move(v));
  }
}

DriveLists initialDriveList(const DiscoveryRoots& roots, const SectorReader& read) {
  DriveLists lists;
  const std::vector<BlockDevice> devices = enumerateBlockDevices(roots);
  lists.finalArrayForVolumes = volumeList(roots, devices);
  FindMediaMain(lists.responseFindMedia, devices);
  joinMountedVolumes(lists.responseFindMedia, lists.finalArrayForVolumes, read);
  truncateDriveModelNumber(lists.responseFindMedia);
  separateDrvVol(lists.responseFindMedia, lists.driveDictArray, lists.volumeDictArray);
  return lists;
}

std::string driveModelText(const PlistDict& drive) {
  if (drive.contains("WhetherUSB")) {
    const std::string vendor = trimmed(drive.string("Vendor Identification"));
    const std::string product = trimmed(drive.string("Product Identification"));
    if (vendor.empty() && product.empty()) return "-";
    return vendor.empty() ? product : product.empty() ? vendor : vendor + " " + product;
  }
  const std::string model = drive.string("device model");
  return model.empty() ? "-" : model;
}

std::string driveSerialText(const PlistDict& drive) {
  if (drive.contains("WhetherUSB")) return "-";
  const std::string serial = drive.string("device serial");
  return serial.empty() ? "-" : serial;
}

std::string fileSystemText(const std::string& content) {
  if (content == "DOS_FAT_32") return "FAT32";
  if (content == "DOS_FAT_16") return "FAT16";
  if (content == "Apple_HFS") return "HFS+";
  if (content == "Apple_HFSX") return "HFSX";
  return content;
}

}  // namespace ambrel
