#include "media/SectorFaults.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <mutex>

namespace ambrel {

namespace {

constexpr uint64_t kSector = 512;

std::mutex gDefaultMutex;
std::shared_ptr<SectorFaults> gDefault;

bool parseNumber(std::string_view text, uint64_t& value) {
  if (text.empty()) return false;
  const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

void SectorFaults::add(Kind kind, uint64_t first, uint64_t count) {
  if (count == 0) return;
  const uint64_t end = first + count < first ? UINT64_MAX : first + count;
  ranges_.push_back({first, end, kind});
}

void SectorFaults::vanishAfterReads(uint64_t reads) { vanishAfter_ = reads_.load() + reads; }

bool SectorFaults::firstFault(uint64_t first, uint64_t end, uint64_t& at, Kind& kind) const {
  bool found = false;
  for (const Range& r : ranges_) {
    if (r.first >= end || r.end <= first) continue;
    const uint64_t hit = r.first > first ? r.first : first;
    if (!found || hit < at) {
      at = hit;
      kind = r.kind;
      found = true;
    }
  }
  return found;
}

ssize_t SectorFaults::fail(int error) {
  faultsMet_.fetch_add(1);
  errno = error;
  return -1;
}

ssize_t SectorFaults::lose() {
  vanished_.store(true);
  return fail(vanishError_ ? vanishError_ : ENXIO);
}

ssize_t SectorFaults::pread(int fd, void* buffer, size_t bytes, off_t offset) {
  const uint64_t call = reads_.fetch_add(1);
  if (call >= vanishAfter_ || vanished_.load()) return lose();
  if (bytes == 0 || offset < 0) return ::pread(fd, buffer, bytes, offset);
  const uint64_t from = static_cast<uint64_t>(offset);
  const uint64_t first = from / kSector;
  const uint64_t end = (from + bytes + kSector - 1) / kSector;
  uint64_t at = 0;
  Kind kind = Kind::IOError;
  if (!firstFault(first, end, at, kind)) return ::pread(fd, buffer, bytes, offset);
  if (at > first && (kind == Kind::Short || !wholeReadFails_))
    return ::pread(fd, buffer, static_cast<size_t>(at * kSector - from), offset);
  switch (kind) {
    case Kind::IOError: return fail(EIO);
    case Kind::Short: faultsMet_.fetch_add(1); return 0;
    case Kind::Vanish: return lose();
  }
  return fail(EIO);
}

std::shared_ptr<SectorFaults> SectorFaults::fromText(std::string_view text, std::string& error) {
  auto faults = std::make_shared<SectorFaults>();
  while (!text.empty()) {
    const size_t comma = text.find(',');
    const std::string_view item = text.substr(0, comma);
    text = comma == std::string_view::npos ? std::string_view{} : text.substr(comma + 1);
    if (item.empty()) continue;
    if (item == "whole") {
      faults->setWholeReadFails(true);
      continue;
    }
    const size_t colon = item.find(':');
    const std::string_view name = item.substr(0, colon);
    const std::string_view value = colon == std::string_view::npos ? std::string_view{} : item.substr(colon + 1);
    uint64_t first = 0, count = 1;
    const size_t plus = value.find('+');
    const bool numbers = parseNumber(value.substr(0, plus), first) &&
                         (plus == std::string_view::npos || parseNumber(value.substr(plus + 1), count));
    if (name == "gone-error" && (value == "eio" || value == "enxio" || value == "enodev")) {
      faults->setVanishError(value == "eio" ? EIO : value == "enxio" ? ENXIO : ENODEV);
    } else if (name == "vanish-after" && numbers && plus == std::string_view::npos) {
      faults->vanishAfterReads(first);
    } else if ((name == "eio" || name == "short" || name == "vanish") && numbers) {
      faults->add(name == "eio" ? Kind::IOError : name == "short" ? Kind::Short : Kind::Vanish, first, count);
    } else {
      error = "not understood: \"" + std::string(item) + "\"";
      return nullptr;
    }
  }
  return faults;
}

void SectorFaults::setProcessDefault(std::shared_ptr<SectorFaults> faults) {
  std::lock_guard lock(gDefaultMutex);
  gDefault = std::move(faults);
}

std::shared_ptr<SectorFaults> SectorFaults::processDefault() {
  std::lock_guard lock(gDefaultMutex);
  return gDefault;
}

}  // namespace ambrel
