// Accepted matches as entries of the recovered tree: a folder per category,
// one per extension, the files in it; RTF documents as RTFD bundles with the
// pictures they name.
#include <algorithm>
#include <cctype>
#include <fmt/format.h>

#include "carving/ImageSize.h"
#include "carving/SignatureSearch.h"
#include "hfs/Volume.h"

namespace ambrel {

namespace {

// Attachments are matched only within this distance of their document.
constexpr uint64_t kRtfAttachmentReach = 100000001;
// Pictures larger than this are not opened to compare their size.
constexpr uint64_t kMaxRtfAttachmentBytes = 20000000;

}  // namespace

std::optional<std::string> standardSigExtensionForExtension(const std::string& extension) {
  if (extension.size() <= 3) {
    std::string out = extension;
    for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return out;
  }
  if (extension.size() == 4) {
    if (extension[3] == 'F' || extension[3] == 'f') return std::string("tif");
    if (extension[3] == 'G' || extension[3] == 'g') return std::string("jpg");
  }
  return std::nullopt;
}

bool isSupportedRTFGraphic(const std::string& e) {
  static const char* const kSupported[] = {"bmp", "Bmp", "BMP", "jpg", "JPG", "Jpg", "jpeg", "JPEG", "Jpeg",
                                           "png", "PNG", "Png", "tif", "TIF", "Tif", "tiff", "TIFF", "Tiff",
                                           "gif", "GIF", "Gif"};
  return std::find(std::begin(kSupported), std::end(kSupported), e) != std::end(kSupported);
}

uint64_t SignatureSearch::acceptMatch(uint64_t block, Sig& sig, const Sig& primary, bool throughExtra,
                                      SectorSource& source) {
  ++stats_.accepted;
  if (block > UINT32_MAX) {
    // An extent holds a 32-bit start block: such a file cannot be listed
    // without pointing at the wrong bytes.
    ++stats_.notListed;
  } else {
    ++volume_.fileCount;
    ++volume_.entryCount;
    if (!throughExtra && state_.lookForRtfAttachments && !state_.rtfdArray.empty())
      rtfAttachmentTest(block, sig, source);
    else
      addFileToListAtBlock(block, sig);
  }
  // Through an extra, the skip is the record's that the table holds.
  if (primary.skipFileSize && primary.skipSize != 0) return block + primary.skipSize;
  return block + 1;
}

void SignatureSearch::rtfAttachmentTest(uint64_t block, Sig& sig, SectorSource& source) {
  const RtfdEntry& wrapper = state_.rtfdArray.back();
  // The document itself, its pictures just listed and its bundle not made
  // yet: it has no distance to measure, wherever it lies.
  if (!wrapper.wrapper) {
    addFileToListAtBlock(block, sig);
    return;
  }
  const uint64_t blockBytes = uint64_t(volume_.blockSize) * kSectorSize;
  const uint64_t distance = block >= wrapper.wrapperBlock ? block - wrapper.wrapperBlock : UINT64_MAX;
  if (distance > UINT32_MAX / std::max<uint64_t>(blockBytes, 1) || distance * blockBytes >= kRtfAttachmentReach) {
    state_.lookForRtfAttachments = false;
    state_.rtfdArray.clear();
    addFileToListAtBlock(block, sig);
    return;
  }
  if (!isSupportedRTFGraphic(sig.extension)) {
    addFileToListAtBlock(block, sig);
    return;
  }
  std::optional<ImageSize> picture;
  bool read = false;
  for (size_t i = 0; i + 1 < state_.rtfdArray.size(); ++i) {
    const RtfdEntry& entry = state_.rtfdArray[i];
    const size_t dot = entry.fileName.rfind('.');
    const std::string ext = dot == std::string::npos ? entry.fileName : entry.fileName.substr(dot + 1);
    const auto standard = standardSigExtensionForExtension(ext);
    if (!standard || *standard != sig.extension || sig.foundSize == 0 || sig.foundSize >= kMaxRtfAttachmentBytes)
      continue;
    if (!read) {
      read = true;
      std::vector<uint8_t> data;
      Candidate reader(source, geometry(), block, state_);
      reader.fillDataFromBlock(block, sig.foundSize, data);
      picture = readImageSize(data);
    }
    if (!picture || picture->widthPixels == 0) continue;
    // The document gives points; a picture without a resolution is 72 dpi.
    const bool samePoints = picture->widthPoints() == entry.width && picture->heightPoints() == entry.height;
    const bool samePixels = picture->widthPixels == entry.width && picture->heightPixels == entry.height;
    if (!samePoints && !samePixels) continue;
    const std::string name = entry.fileName;
    HDIR* bundle = wrapper.parentDir;
    state_.rtfdArray.erase(state_.rtfdArray.begin() + static_cast<std::ptrdiff_t>(i));
    addRtfGraphicToListAtBlock(block, sig, name, bundle);
    return;
  }
  addFileToListAtBlock(block, sig);
}

uint64_t SignatureSearch::entrySize(uint64_t block, const Sig& sig) {
  const uint64_t bs = uint64_t(std::max(volume_.blockSize, 1));
  const uint64_t volumeBytes = bs * volume_.totalBlocks * kSectorSize;
  // A length a validator found is not limited by the user's maximum.
  uint64_t size = sig.foundSize != 0 && sig.foundSize < volumeBytes ? sig.foundSize : sig.userSize;
  // Never past the drive's end: those bytes are not there to save.
  const uint64_t firstSector = volume_.HPlusVolStart + block * bs;
  const uint64_t driveSectors = driveSectors_;
  const uint64_t room = firstSector < driveSectors ? (driveSectors - firstSector) * kSectorSize : 0;
  if (size > room) {
    size = room;
    ++stats_.sizesCut;
  }
  // An extent counts blocks in 32 bits.
  const uint64_t maxBytes = uint64_t{UINT32_MAX} * bs * kSectorSize;
  if (size > maxBytes) {
    size = maxBytes;
    ++stats_.sizesCut;
  }
  return size;
}

std::unique_ptr<HDIR> SignatureSearch::fileEntry(uint64_t block, const Sig& sig, HDIR* parent,
                                                 const std::string& name, uint64_t* size) {
  auto file = std::make_unique<HDIR>();
  const uint64_t bytes = entrySize(block, sig);
  const uint64_t unit = uint64_t(std::max(volume_.blockSize, 1)) * kSectorSize;
  file->blockSize = volume_.blockSize;
  file->fileType = kHDIRFile;
  file->origin = EntryOrigin::Carving;
  file->setFileName(name);
  file->parent = parent;
  file->parentID = parent->fileID;
  file->fileID = volume_.maxFileID++;
  file->fileCount = 1;
  file->fileSize = bytes;
  file->dataSize = bytes;
  file->addDataExt({static_cast<uint32_t>(block), static_cast<uint32_t>((bytes + unit - 1) / unit)});
  volume_.dataSize += bytes;
  *size = bytes;
  return file;
}

HDIR* SignatureSearch::folderNamed(HDIR* parent, const std::string& name, int32_t childrenCount, int32_t parentAdds) {
  if (HDIR* found = parent->firstChildNamed(name)) return found;
  auto folder = std::make_unique<HDIR>();
  folder->fileType = kHDIRFolder;
  folder->setFileName(name);
  folder->parent = parent;
  folder->parentID = parent->fileID;
  folder->fileID = volume_.maxFileID++;
  folder->blockSize = volume_.blockSize;
  folder->setChildrenCount(childrenCount);
  parent->addToChildrenCount(parentAdds);
  ++volume_.folderCount;
  ++volume_.entryCount;
  return parent->addChildSig(std::move(folder));
}

HDIR* SignatureSearch::addFileToListAtBlock(uint64_t block, const Sig& sig) {
  HDIR* root = volume_.dirRoot.get();
  // A new category folder counts itself, its extension folder and the file
  // for the root, the last two for itself.
  HDIR* category = folderNamed(root, sig.category, 2, 3);
  HDIR* extension = folderNamed(category, sig.extension, 1, 0);
  const std::string name = fmt::format("File{}.{}", extension->children().size() + 1, sig.extension);
  uint64_t size = 0;
  HDIR* added = nullptr;
  if (sig.extension == "rtf" && sig.skipSize != 0) {
    // A document with pictures becomes a bundle holding it as TXT.rtf.
    HDIR* bundle = folderNamed(extension, fmt::format("File{}.rtfd", extension->children().size() + 1), 1, 0);
    auto text = fileEntry(block, sig, bundle, "TXT.rtf", &size);
    bundle->addToFileCount(1);
    bundle->addToFileSize(size);
    bundle->addChildSig(std::move(text));
    added = bundle;
    state_.rtfdArray.push_back(RtfdEntry{{}, 0, 0, true, block, bundle});
  } else {
    added = extension->addChildSig(fileEntry(block, sig, extension, name, &size));
  }
  for (HDIR* up = extension; up; up = up->parent) {
    up->addToFileCount(1);
    up->addToFileSize(size);
  }
  return added;
}

HDIR* SignatureSearch::addRtfGraphicToListAtBlock(uint64_t block, const Sig& sig, const std::string& fileName,
                                                  HDIR* bundle) {
  if (!bundle) return addFileToListAtBlock(block, sig);
  uint64_t size = 0;
  HDIR* added = bundle->addChildSig(fileEntry(block, sig, bundle, fileName, &size));
  for (HDIR* up = bundle; up; up = up->parent) {
    up->addToChildrenCount(1);
    up->addToFileCount(1);
    up->addToFileSize(size);
  }
  return added;
}

}  // namespace ambrel
