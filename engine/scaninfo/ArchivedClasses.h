#pragma once
// The archived forms of the program's own classes: exactly the keys, key
// order and coder calls their encodeWithCoder: uses, as plain structs. The
// live classes copy their fields in and out of these, so the archive format
// does not depend on how the live classes are laid out.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "scaninfo/KeyedArchive.h"

namespace ambrel {

// A drive: "path", "model", "serial", "revision", "sizeInSect".
struct DMediaArchive : KeyedEncodable {
  std::string path, model, serial, revision;
  uint64_t sizeInSect = 0;

  ClassChain classChain() const override { return {"DMedia", "NSObject"}; }
  void encodeWithCoder(KeyedArchiver& coder) const override;
  static std::optional<DMediaArchive> decode(const ArchivedObject& object, std::string& error);
};

// A volume. Which keys are written depends on volumeScanType: a volume device
// (2) keeps only its name, root name, deleted-files folder, path and size.
struct VolumeArchive : KeyedEncodable {
  int32_t volumeScanType = 0;
  uint64_t startSector = 0;
  std::string volumeName, rootName, scanMode;
  std::string lostFoldersPath, lostFilesPath, lostFileName;
  std::string deletedFilesPath, deletedFileName;
  std::string path, model, serial, revision;
  uint64_t sizeInSect = 0;
  uint64_t HPlusVolStart = 0;
  int32_t blockSize = 0;
  // What the entry records cannot hold: which entries are links, 9 bytes
  // each (entry's place in the file's pre-order and link ID big-endian
  // around the kind). Absent from files with no links and from files
  // written before links were kept, which read back with none.
  PlistData linkEntries;

  ClassChain classChain() const override { return {"Volume", "DMedia", "NSObject"}; }
  void encodeWithCoder(KeyedArchiver& coder) const override;
  // Nil objects read back as "" or 0; a missing volumeScanType or an
  // instance of another class is refused.
  static std::optional<VolumeArchive> decode(const ArchivedObject& object, std::string& error);
  bool operator==(const VolumeArchive&) const = default;
};

// A file-type signature. Unsigned fields travel through the signed coder
// calls (the archive's integers are signed) and come back bit for bit.
struct SigArchive : KeyedEncodable {
  bool preInstalled = false;
  bool skipFileSize = false;
  uint8_t categoryID = 0;
  std::string category;
  uint32_t typeOfFile = 0;
  std::string software;
  std::string extension;
  uint16_t offset = 0;
  uint8_t headerLength = 0;
  uint64_t header = 0;
  uint32_t defaultSize = 0;
  uint64_t userSize = 0;
  uint64_t foundSize = 0;
  uint32_t skipSize = 0;

  ClassChain classChain() const override { return {"Sig", "NSObject"}; }
  void encodeWithCoder(KeyedArchiver& coder) const override;
  static std::optional<SigArchive> decode(const ArchivedObject& object, std::string& error);
  bool operator==(const SigArchive&) const = default;
};

// A node of the signature tree: a category (fileType 1) with children, or a
// file type (2) with its Sig. Nil children or sig stay absent.
struct SigNodeArchive : KeyedEncodable {
  uint16_t fileType = 0;
  std::optional<std::vector<SigNodeArchive>> children;
  uint8_t selected = 0;
  std::string category;
  std::optional<SigArchive> sig;

  ClassChain classChain() const override { return {"SigNode", "NSObject"}; }
  void encodeWithCoder(KeyedArchiver& coder) const override;
  static std::optional<SigNodeArchive> decode(const ArchivedObject& object, std::string& error, int depth = 0);
  bool operator==(const SigNodeArchive&) const = default;
};

// The signature database file: an archive whose root is the array of
// category nodes.
std::vector<uint8_t> archiveSignatureDatabase(const std::vector<SigNodeArchive>& categories);
std::optional<std::vector<SigNodeArchive>> unarchiveSignatureDatabase(std::span<const uint8_t> bytes, std::string& error);

}  // namespace ambrel
