#pragma once
// Loading a recovered file's first bytes for the preview window: the kind of
// preview from the name, the data (at most about 15 MB) read through the
// entry's extents, the text rendering, and the ID3 tag's picture for sounds.
// Showing images and playing media is the front end's work.
#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "output/Saver.h"
#include "tree/HDIR.h"

namespace ambrel {

// Loading stops as soon as more than this many bytes have been appended.
inline constexpr uint64_t kPreviewDataCap = 15000000;
// Whole-drive (carved) files are read in chunks of this many sectors.
inline constexpr uint32_t kCarvedPreviewChunkSectors = 8;

enum class PreviewKind : int { Text = 0, Image = 1, Movie = 2 };

// The part of the name after its last "." ("" when there is none).
std::string fileExtension(const std::string& name);
// Image when the extension is one of imageTypes, movie or sound when one of
// movieTypes, else text; the lists come from the front end's decoders and
// are compared without regard to case.
PreviewKind previewKindFor(const std::string& fileName, const std::vector<std::string>& imageTypes,
                           const std::vector<std::string>& movieTypes);

enum class PreviewLoad { Loaded, Aborted, ReadFailed };

// getPreviewData: appends the data fork to `out`, one allocation block at a
// time (8-sector chunks for a whole-drive volume, volumeScanType 3), the last
// block cut to dataSize, until more than kPreviewDataCap bytes are there.
// `abort` is tested before every read.
PreviewLoad getPreviewData(const ForkSource& source, const HDIR& entry, const std::atomic<bool>& abort,
                           std::vector<uint8_t>& out);

// previewText: the first allocation block of the first data extent, rendered.
// Empty for a file with no data extent; nullopt when the read fails.
std::optional<std::string> previewText(const ForkSource& source, const HDIR& entry);
// Every byte outside 0x20-0x7E shown as "."; the block's last byte is given
// up to the terminating zero.
std::string renderPreviewText(const uint8_t* block, size_t size);

// "Loaded %.2f %%" of loaded bytes against the data size.
std::string loadedPercentText(uint64_t loaded, uint64_t dataSize);

// mp3BitShredder: the 28-bit value of an ID3v2 synchsafe size word (the low
// 7 bits of each byte, most significant byte first).
uint32_t mp3BitShredder(uint32_t sizeWord);

// The attached picture of an ID3v2 tag at the start of the data: its MIME
// type (or ID3v2.2 format) and where its bytes lie in `data`.
struct Id3Picture {
  std::string mimeType;
  size_t offset = 0;
  size_t length = 0;
};
std::optional<Id3Picture> id3Picture(const uint8_t* data, size_t size);

}  // namespace ambrel
