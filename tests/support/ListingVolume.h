#pragma once
// The volume whose listing is kept byte for byte (tests) and timed against
// fls (benchmarks): a generated tree of any size for scale, beside entries
// at the edges of what a listing row shows.
#include <string>

#include "ImageBuilder.h"

namespace ambrel::test {

inline mkimage::EntrySpec listedFile(const std::string& name, uint64_t size) {
  mkimage::EntrySpec e;
  e.name = name;
  e.dataSize = size;
  return e;
}

// A generated tree for scale, beside entries at the edges of what a row
// shows: dates at both ends of the HFS range, before 1970 and on leap days,
// no dates at all, forks in many extents, names a TSV cell or a JSON string
// must escape, and the three kinds of link.
inline mkimage::DriveSpec listingDrive(uint32_t files, uint32_t folders) {
  mkimage::DriveSpec d;
  d.table = mkimage::TableKind::None;
  mkimage::VolumeSpec v;
  v.name = "Golden";
  v.blockSize = 512;
  v.generate = mkimage::GenerateSpec{files, folders, 11, 0, 1000, true};

  mkimage::EntrySpec dates;
  dates.name = "dates";
  dates.folder = true;
  const std::pair<const char*, std::pair<uint32_t, uint32_t>> dated[] = {
      {"first second", {1, 59}},
      {"last second", {0xFFFFFFFFu, 0xFFFFFFFEu}},
      {"1904 leap day", {86400u * 59, 86400u * 60 - 1}},
      {"before 1970", {mkimage::hfsDateFromUnix(-1), mkimage::hfsDateFromUnix(-86400LL * 365 * 30 - 12345)}},
      {"2000 leap day", {mkimage::hfsDateFromUnix(951782400), mkimage::hfsDateFromUnix(951868799)}},
      {"2038", {mkimage::hfsDateFromUnix(2147483647), mkimage::hfsDateFromUnix(2147483648LL)}},
  };
  for (const auto& [name, when] : dated) {
    mkimage::EntrySpec f = listedFile(name, 3);
    f.created = when.first;
    f.modified = when.second;
    dates.children.push_back(f);
  }
  mkimage::EntrySpec undated = listedFile("no dates", 7);
  undated.created = 0;
  undated.modified = 0;
  dates.children.push_back(undated);

  mkimage::EntrySpec forks = listedFile("fragmented", 40000);
  forks.dataFragments = 12;
  forks.rsrcSize = 9000;
  forks.rsrcFragments = 3;

  mkimage::EntrySpec odd;
  odd.name = "odd\tnames\\";
  odd.folder = true;
  odd.children = {listedFile("line\nbreak", 1), listedFile("quote\"and\x01" "control", 2), listedFile("slash/colon:", 3),
                  listedFile("e\xCC\x81t\xC3\xA9 \xE5\x86\x99\xE7\x9C\x9F", 4)};

  mkimage::EntrySpec target = listedFile("target.txt", 600);
  mkimage::EntrySpec hard;
  hard.name = "hard link";
  hard.hardLinkTo = "target.txt";
  mkimage::EntrySpec shown;
  shown.name = "shown folder";
  shown.folder = true;
  shown.children = {listedFile("inside.txt", 5)};
  mkimage::EntrySpec folderLink;
  folderLink.name = "folder link";
  folderLink.folderLinkTo = "shown folder";
  mkimage::EntrySpec sym;
  sym.name = "symlink";
  sym.symlinkTo = "target.txt";

  v.root = {dates, forks, odd, target, hard, shown, folderLink, sym};
  d.volume = v;
  return d;
}

}  // namespace ambrel::test
