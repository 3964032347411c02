#include "output/RecoveryReport.h"

#include <fcntl.h>
#include <unistd.h>

#include <openssl/evp.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <memory>

#include "hfs/Volume.h"

namespace ambrel {

namespace {

constexpr int64_t kHfsToUnix = 2082844800;
constexpr uint16_t kHfsxSignature = 0x4858;  // "HX"

// Text content and attribute values. Tab, line feed and carriage return go
// as references, which parsers keep; XML has no place for the other control
// characters, which are written \xHH.
std::string xmlText(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (char c : text) {
    switch (c) {
      case '&': out += "&amp;"; break;
      case '<': out += "&lt;"; break;
      case '>': out += "&gt;"; break;
      case '"': out += "&quot;"; break;
      case '\'': out += "&apos;"; break;
      case '\t': out += "&#9;"; break;
      case '\n': out += "&#10;"; break;
      case '\r': out += "&#13;"; break;
      default:
        if (static_cast<unsigned char>(c) < 0x20) out += fmt::format("\\x{:02X}", static_cast<unsigned char>(c));
        else out += c;
    }
  }
  return out;
}

std::string isoDate(uint32_t hfsSeconds) {
  if (hfsSeconds == 0) return {};
  const std::time_t t = static_cast<std::time_t>(int64_t{hfsSeconds} - kHfsToUnix);
  std::tm tm{};
  gmtime_r(&t, &tm);
  char buf[32];
  std::strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%SZ", &tm);
  return buf;
}

std::string hex(const unsigned char* p, unsigned n) {
  std::string s;
  for (unsigned i = 0; i < n; ++i) s += fmt::format("{:02x}", p[i]);
  return s;
}

struct Digests {
  std::string md5, sha1;
  uint64_t size = 0;
};

// MD5 and SHA-1 of a saved file, read again through its folder without
// following a link; empty when it cannot be read.
bool digestsOf(int dirFd, const std::string& name, Digests& out) {
  const int fd = ::openat(dirFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  using Ctx = std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)>;
  Ctx md5(EVP_MD_CTX_new(), EVP_MD_CTX_free), sha1(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  bool ok = md5 && sha1 && EVP_DigestInit_ex(md5.get(), EVP_md5(), nullptr) == 1 &&
            EVP_DigestInit_ex(sha1.get(), EVP_sha1(), nullptr) == 1;
  std::vector<unsigned char> buf(1 << 20);
  while (ok) {
    const ssize_t n = ::read(fd, buf.data(), buf.size());
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) ok = false;
    if (n <= 0) break;
    out.size += static_cast<uint64_t>(n);
    ok = EVP_DigestUpdate(md5.get(), buf.data(), static_cast<size_t>(n)) == 1 &&
         EVP_DigestUpdate(sha1.get(), buf.data(), static_cast<size_t>(n)) == 1;
  }
  ::close(fd);
  unsigned char d[EVP_MAX_MD_SIZE];
  unsigned len = 0;
  if (!ok || EVP_DigestFinal_ex(md5.get(), d, &len) != 1) return false;
  out.md5 = hex(d, len);
  if (EVP_DigestFinal_ex(sha1.get(), d, &len) != 1) return false;
  out.sha1 = hex(d, len);
  return true;
}

}  // namespace

RecoveryReport::RecoveryReport(const std::string& path, const Volume& volume, const std::string& commandLine)
    : path_(path), volume_(volume) {
  out_ = std::fopen(path.c_str(), "we");
  if (!out_) {
    error_ = std::strerror(errno);
    return;
  }
  const std::time_t now = std::time(nullptr);
  std::tm tm{};
  gmtime_r(&now, &tm);
  char started[32];
  std::strftime(started, sizeof started, "%Y-%m-%dT%H:%M:%SZ", &tm);
  fmt::print(out_,
             "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
             "<dfxml xmloutputversion=\"1.0\" xmlns=\"http://www.forensicswiki.org/wiki/Category:Digital_Forensics_XML\""
             " xmlns:dc=\"http://purl.org/dc/elements/1.1/\" xmlns:ambrel=\"urn:tarnwell:ambrel:report\">\n"
             "  <metadata><dc:type>Recovery report</dc:type></metadata>\n"
             "  <creator>\n    <program>Tarnwell Ambrel</program>\n"
             "    <execution_environment><command_line>{}</command_line><start_time>{}</start_time>"
             "</execution_environment>\n  </creator>\n"
             "  <source><image_filename>{}</image_filename><sectorsize>512</sectorsize></source>\n"
             "  <volume offset=\"{}\">\n    <ftype_str>{}</ftype_str>\n    <block_size>{}</block_size>\n"
             "    <ambrel:name>{}</ambrel:name>\n    <ambrel:scan>{}</ambrel:scan>\n",
             xmlText(commandLine), started, xmlText(volume.path), volume.startSector * kSectorSize,
             volume.vib.signature == kHfsxSignature ? "hfsx" : "hfs+", uint64_t(std::max(volume.blockSize, 0)) * kSectorSize,
             xmlText(volume.volumeName), xmlText(volume.scanMode));
}

RecoveryReport::~RecoveryReport() {
  if (out_) std::fclose(out_);
}

void RecoveryReport::byteRuns(const HDIR& entry, std::span<const Extent> extents, uint64_t size,
                              const char* facet) {
  const int32_t B = entry.blockSize > 0 ? entry.blockSize : volume_.blockSize;
  if (B <= 0 || extents.empty() || size == 0) return;
  fmt::print(out_, "      <byte_runs facet=\"{}\">\n", facet);
  const uint64_t blockBytes = uint64_t(B) * kSectorSize;
  uint64_t offset = 0;
  for (const Extent& e : extents) {
    if (offset >= size) break;
    const uint64_t len = std::min<uint64_t>(uint64_t(e.blockCount) * blockBytes, size - offset);
    const uint64_t img = (volume_.HPlusVolStart + uint64_t(e.startBlock) * uint64_t(B)) * kSectorSize;
    fmt::print(out_, "        <byte_run file_offset=\"{}\" img_offset=\"{}\" len=\"{}\"/>\n", offset, img, len);
    offset += len;
  }
  fmt::print(out_, "      </byte_runs>\n");
}

void RecoveryReport::add(const SavedFile& f) {
  if (!out_) return;
  const HDIR& e = f.entry;
  ++files_;
  fmt::print(out_, "    <fileobject>\n      <filename>{}</filename>\n", xmlText(f.path));
  fmt::print(out_, "      <ambrel:original_path>{}</ambrel:original_path>\n", xmlText(listedPath(e)));
  fmt::print(out_, "      <name_type>{}</name_type>\n      <inode>{}</inode>\n", f.symlink ? "l" : "r", e.fileID);
  fmt::print(out_, "      <filesize>{}</filesize>\n", e.dataSize);
  if (e.rscSize) fmt::print(out_, "      <ambrel:resource_size>{}</ambrel:resource_size>\n", e.rscSize);
  if (const std::string m = isoDate(e.modDate); !m.empty()) fmt::print(out_, "      <mtime>{}</mtime>\n", m);
  if (const std::string c = isoDate(e.createDate); !c.empty()) fmt::print(out_, "      <crtime>{}</crtime>\n", c);
  fmt::print(out_, "      <ambrel:origin>{}</ambrel:origin>\n", originText(e.origin));
  fmt::print(out_, "      <ambrel:saved>{}</ambrel:saved>\n", f.whole ? "whole" : "incomplete");
  fmt::print(out_, "      <ambrel:confidence>{}</ambrel:confidence>\n", confidenceText(e.confidence));
  if (e.linkKind == LinkKind::File) fmt::print(out_, "      <ambrel:hard_link_to>{}</ambrel:hard_link_to>\n", e.linkID);
  if (e.compressionType) {
    // Its bytes on the drive are the coded ones, in the resource fork.
    fmt::print(out_, "      <ambrel:compression type=\"{}\"/>\n", e.compressionType);
    byteRuns(e, e.rscExt, e.compressedSize, "resource");
  } else {
    byteRuns(e, e.dataExt, e.dataSize, "data");
    byteRuns(e, e.rscExt, e.rscSize, "resource");
  }
  Digests d;
  if (!f.symlink && digestsOf(f.dirFd, f.name, d))
    fmt::print(out_, "      <hashdigest type=\"md5\">{}</hashdigest>\n      <hashdigest type=\"sha1\">{}</hashdigest>\n",
               d.md5, d.sha1);
  fmt::print(out_, "    </fileobject>\n");
  if (f.sidecar) addSidecar(f);
}

void RecoveryReport::addSidecar(const SavedFile& f) {
  const HDIR& e = f.entry;
  const std::string name = "._" + f.name;
  const size_t slash = f.path.rfind('/');
  const std::string path = (slash == std::string::npos ? std::string() : f.path.substr(0, slash + 1)) + name;
  Digests d;
  const bool hashed = digestsOf(f.dirFd, name, d);
  ++files_;
  fmt::print(out_, "    <fileobject>\n      <filename>{}</filename>\n", xmlText(path));
  fmt::print(out_, "      <ambrel:sidecar_of>{}</ambrel:sidecar_of>\n", xmlText(f.path));
  fmt::print(out_, "      <name_type>r</name_type>\n      <inode>{}</inode>\n", e.fileID);
  // What lies on disk: the AppleDouble header, then the resource fork.
  if (hashed) fmt::print(out_, "      <filesize>{}</filesize>\n", d.size);
  fmt::print(out_, "      <ambrel:resource_size>{}</ambrel:resource_size>\n", e.rscSize);
  fmt::print(out_, "      <ambrel:origin>{}</ambrel:origin>\n", originText(e.origin));
  fmt::print(out_, "      <ambrel:saved>{}</ambrel:saved>\n", f.whole ? "whole" : "incomplete");
  byteRuns(e, e.rscExt, e.rscSize, "resource");
  if (hashed)
    fmt::print(out_, "      <hashdigest type=\"md5\">{}</hashdigest>\n      <hashdigest type=\"sha1\">{}</hashdigest>\n",
               d.md5, d.sha1);
  fmt::print(out_, "    </fileobject>\n");
}

bool RecoveryReport::finish(const SaveResult& result) {
  if (!out_) return false;
  const Volume& v = volume_;
  fmt::print(out_, "  </volume>\n  <ambrel:scan_log>\n");
  const ReadErrors& re = v.readErrors;
  fmt::print(out_, "    <ambrel:read_errors sectors=\"{}\" nodes=\"{}\">{}</ambrel:read_errors>\n", re.sectors(),
             re.nodes(), xmlText(re.summary()));
  for (uint64_t s : re.listed()) fmt::print(out_, "    <ambrel:unreadable sector=\"{}\"/>\n", s);
  fmt::print(out_, "    <ambrel:damaged_nodes count=\"{}\">\n", v.damagedNodes);
  for (uint64_t s : v.damagedNodeSectors) fmt::print(out_, "      <ambrel:node sector=\"{}\"/>\n", s);
  fmt::print(out_, "    </ambrel:damaged_nodes>\n");
  fmt::print(out_, "    <ambrel:bridged_chains>{}</ambrel:bridged_chains>\n", v.chainBridges);
  fmt::print(out_, "    <ambrel:missing_extents count=\"{}\"/>\n", v.missingExtentFileIDs.size());
  fmt::print(out_, "    <ambrel:foreign_nodes_skipped>{}</ambrel:foreign_nodes_skipped>\n", v.foreignNodesSkipped);
  fmt::print(out_, "    <ambrel:compressed_unreadable>{}</ambrel:compressed_unreadable>\n", v.compressedUnreadable);
  fmt::print(out_, "    <ambrel:links files=\"{}\" folders=\"{}\" symlinks=\"{}\" unresolved=\"{}\"/>\n", v.fileLinks,
             v.folderLinks, v.symlinks, v.linksUnresolved);
  fmt::print(out_, "  </ambrel:scan_log>\n  <ambrel:save_log written=\"{}\" incomplete=\"{}\" not_saved=\"{}\""
                   " unreadable_sectors=\"{}\">\n",
             result.filesWritten, result.filesIncomplete, result.filesNotSaved, result.unreadableSectors);
  for (const std::string& p : result.problems) fmt::print(out_, "    <ambrel:problem>{}</ambrel:problem>\n", xmlText(p));
  fmt::print(out_, "  </ambrel:save_log>\n</dfxml>\n");
  const bool flushed = std::fflush(out_) == 0 && !std::ferror(out_);
  const bool closed = std::fclose(out_) == 0;
  out_ = nullptr;
  if (!flushed || !closed) error_ = std::strerror(errno);
  return flushed && closed;
}

}  // namespace ambrel
