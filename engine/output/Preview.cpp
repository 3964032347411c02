#include "output/Preview.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

#include "base/Endian.h"
#include "media/DMedia.h"
#include "output/Decompress.h"

namespace ambrel {

namespace {

std::string lowered(std::string s) {
  for (char& c : s)
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  return s;
}

bool listed(const std::string& ext, const std::vector<std::string>& types) {
  const std::string e = lowered(ext);
  for (const auto& t : types)
    if (lowered(t) == e) return true;
  return false;
}

int32_t blockSizeOf(const ForkSource& source, const HDIR& entry) {
  return entry.blockSize > 0 ? entry.blockSize : source.blockSize;
}

// One read never exceeds this many sectors, whatever a damaged header claims.
constexpr uint64_t kMaxPreviewReadSectors = 16384;

}  // namespace

std::string fileExtension(const std::string& name) {
  const size_t dot = name.rfind('.');
  return dot == std::string::npos ? std::string() : name.substr(dot + 1);
}

PreviewKind previewKindFor(const std::string& fileName, const std::vector<std::string>& imageTypes,
                           const std::vector<std::string>& movieTypes) {
  const std::string ext = fileExtension(fileName);
  if (ext.empty()) return PreviewKind::Text;
  if (listed(ext, imageTypes)) return PreviewKind::Image;
  if (listed(ext, movieTypes)) return PreviewKind::Movie;
  return PreviewKind::Text;
}

PreviewLoad getPreviewData(const ForkSource& source, const HDIR& entry, const std::atomic<bool>& abort,
                           std::vector<uint8_t>& out) {
  if (entry.compressionType != 0) {
    const size_t start = out.size();
    const DecompressResult r = decompressEntry(
        source, entry,
        [&](const uint8_t* data, size_t size) {
          out.insert(out.end(), data, data + size);
          return out.size() - start <= kPreviewDataCap;
        },
        [&] { return abort.load(); });
    if (r.aborted) return PreviewLoad::Aborted;
    return r.opened ? PreviewLoad::Loaded : PreviewLoad::ReadFailed;
  }
  const bool wholeDrive = source.volumeScanType == 3;
  const int32_t B = wholeDrive ? 1 : blockSizeOf(source, entry);
  if (B <= 0) return PreviewLoad::ReadFailed;
  // Sectors read at a time: one allocation block, or a carved file's chunk.
  const uint64_t step = std::min<uint64_t>(wholeDrive ? kCarvedPreviewChunkSectors : uint64_t(B), kMaxPreviewReadSectors);
  std::vector<uint8_t> buffer(static_cast<size_t>(step * kSectorSize));
  uint64_t remaining = entry.dataSize;
  out.reserve(out.size() + static_cast<size_t>(std::min<uint64_t>(remaining, kPreviewDataCap + buffer.size())));
  const size_t start = out.size();
  for (const Extent& e : entry.dataExt) {
    const uint64_t first = source.HPlusVolStart + uint64_t(e.startBlock) * uint64_t(B);
    const uint64_t sectors = uint64_t(e.blockCount) * uint64_t(B);
    for (uint64_t done = 0; done < sectors && remaining > 0; done += step) {
      if (abort.load()) return PreviewLoad::Aborted;
      const uint64_t n = std::min(step, sectors - done);
      const size_t bytes = static_cast<size_t>(n * kSectorSize);
      std::memset(buffer.data(), 0, bytes);
      if (!source.read(first + done, static_cast<int32_t>(n), buffer.data())) return PreviewLoad::ReadFailed;
      const size_t keep = static_cast<size_t>(std::min<uint64_t>(bytes, remaining));
      out.insert(out.end(), buffer.begin(), buffer.begin() + static_cast<std::ptrdiff_t>(keep));
      remaining -= keep;
      if (out.size() - start > kPreviewDataCap) return PreviewLoad::Loaded;
    }
  }
  return PreviewLoad::Loaded;
}

std::string renderPreviewText(const uint8_t* block, size_t size) {
  if (size == 0) return {};
  std::string text(size - 1, '.');
  for (size_t i = 0; i + 1 < size; ++i)
    if (block[i] >= 0x20 && block[i] <= 0x7E) text[i] = static_cast<char>(block[i]);
  return text;
}

std::optional<std::string> previewText(const ForkSource& source, const HDIR& entry) {
  if (entry.compressionType != 0) {
    // The first block's worth of the uncompressed content.
    const int32_t B = blockSizeOf(source, entry);
    if (B <= 0) return std::nullopt;
    const uint64_t want = std::min<uint64_t>(uint64_t(B), kMaxPreviewReadSectors) * kSectorSize;
    std::vector<uint8_t> block;
    const DecompressResult r = decompressEntry(
        source, entry,
        [&](const uint8_t* data, size_t size) {
          block.insert(block.end(), data, data + size);
          return true;
        },
        {}, want);
    if (!r.opened) return std::nullopt;
    block.resize(static_cast<size_t>(want), 0);
    return renderPreviewText(block.data(), block.size());
  }
  if (entry.dataExt.empty()) return std::string();
  const int32_t B = blockSizeOf(source, entry);
  if (B <= 0) return std::nullopt;
  const uint64_t sectors = std::min<uint64_t>(uint64_t(B), kMaxPreviewReadSectors);
  std::vector<uint8_t> block(static_cast<size_t>(sectors * kSectorSize), 0);
  const uint64_t sector = source.HPlusVolStart + uint64_t(entry.dataExt[0].startBlock) * uint64_t(B);
  if (!source.read(sector, static_cast<int32_t>(sectors), block.data())) return std::nullopt;
  return renderPreviewText(block.data(), block.size());
}

std::string loadedPercentText(uint64_t loaded, uint64_t dataSize) {
  const double percent = dataSize == 0 ? 0.0 : static_cast<double>(loaded) / static_cast<double>(dataSize) * 100.0;
  return fmt::format("Loaded {:.2f} %", percent);
}

uint32_t mp3BitShredder(uint32_t w) {
  return ((w >> 24) & 0x7F) << 21 | ((w >> 16) & 0x7F) << 14 | ((w >> 8) & 0x7F) << 7 | (w & 0x7F);
}

std::optional<Id3Picture> id3Picture(const uint8_t* data, size_t size) {
  if (!data || size < 10 || std::memcmp(data, "ID3", 3) != 0) return std::nullopt;
  const uint8_t major = data[3];
  if (major < 2 || major > 4) return std::nullopt;
  const uint8_t flags = data[5];
  const size_t tagEnd = std::min<size_t>(size, 10 + size_t{mp3BitShredder(loadBE32(data + 6))});
  size_t pos = 10;
  if (major >= 3 && (flags & 0x40)) {
    if (pos + 4 > tagEnd) return std::nullopt;
    const uint32_t word = loadBE32(data + pos);
    const uint64_t skip = major == 4 ? mp3BitShredder(word) : uint64_t{word} + 4;
    if (skip < 4 || skip > tagEnd - pos) return std::nullopt;
    pos += static_cast<size_t>(skip);
  }
  const size_t headerSize = major == 2 ? 6 : 10;
  // Every frame moves pos forward by at least its header, so this ends.
  while (pos + headerSize <= tagEnd) {
    const uint8_t* h = data + pos;
    if (h[0] == 0) break;  // padding
    uint64_t frameSize;
    if (major == 2) frameSize = uint64_t{h[3]} << 16 | uint64_t{h[4]} << 8 | h[5];
    else if (major == 3) frameSize = loadBE32(h + 4);
    else frameSize = mp3BitShredder(loadBE32(h + 4));
    const size_t body = pos + headerSize;
    if (frameSize > tagEnd - body) break;
    const bool isPicture = major == 2 ? std::memcmp(h, "PIC", 3) == 0 : std::memcmp(h, "APIC", 4) == 0;
    if (isPicture && frameSize >= 2) {
      const uint8_t* f = data + body;
      const size_t n = static_cast<size_t>(frameSize);
      const uint8_t encoding = f[0];
      size_t p = 1;
      Id3Picture pic;
      if (major == 2) {
        if (p + 3 > n) return std::nullopt;
        pic.mimeType.assign(reinterpret_cast<const char*>(f + p), 3);
        p += 3;
      } else {
        const void* nul = std::memchr(f + p, 0, n - p);
        if (!nul) return std::nullopt;
        const size_t end = static_cast<size_t>(static_cast<const uint8_t*>(nul) - f);
        pic.mimeType.assign(reinterpret_cast<const char*>(f + p), end - p);
        p = end + 1;
      }
      if (p >= n) return std::nullopt;
      ++p;  // picture type
      if (encoding == 1 || encoding == 2) {
        // UTF-16 description: ends at a zero code unit.
        while (p + 1 < n && !(f[p] == 0 && f[p + 1] == 0)) p += 2;
        if (p + 1 >= n) return std::nullopt;
        p += 2;
      } else {
        const void* nul = p < n ? std::memchr(f + p, 0, n - p) : nullptr;
        if (!nul) return std::nullopt;
        p = static_cast<size_t>(static_cast<const uint8_t*>(nul) - f) + 1;
      }
      pic.offset = body + p;
      pic.length = n - p;
      return pic;
    }
    pos = body + static_cast<size_t>(frameSize);
  }
  return std::nullopt;
}

}  // namespace ambrel
