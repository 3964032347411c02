// The deterministic demo drive built by `make demo`.
#include <cstring>

#include "Internal.h"

namespace ambrel::mkimage {
namespace {

std::vector<uint8_t> textBytes(const std::string& s) { return std::vector<uint8_t>(s.begin(), s.end()); }

// A baseline JFIF: SOI, APP0, an entropy-coded body without markers, EOI.
std::vector<uint8_t> jpegLike(uint64_t seed, size_t bodySize) {
  std::vector<uint8_t> out = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F', 0x00, 0x01, 0x01,
                              0x00, 0x00, 0x48, 0x00, 0x48, 0x00, 0x00, 0xFF, 0xDA, 0x00, 0x08, 0x01,
                              0x01, 0x00, 0x00, 0x3F, 0x00};
  std::vector<uint8_t> body = generatedBytes(seed, bodySize);
  for (auto& b : body)
    if (b == 0xFF) b = 0xFE;
  out.insert(out.end(), body.begin(), body.end());
  out.push_back(0xFF);
  out.push_back(0xD9);
  return out;
}

std::vector<uint8_t> pdfLike(const std::string& title, size_t padding) {
  std::string s = "%PDF-1.4\n1 0 obj << /Title (" + title + ") >> endobj\n";
  s += std::string(padding, ' ');
  s += "\ntrailer << /Root 1 0 R >>\n%%EOF\n";
  return textBytes(s);
}

EntrySpec file(const std::string& name, std::vector<uint8_t> data, HfsDate created) {
  EntrySpec e;
  e.name = name;
  e.data = std::move(data);
  e.created = created;
  e.modified = created + 7200;
  return e;
}

EntrySpec folder(const std::string& name, std::vector<EntrySpec> children) {
  EntrySpec e;
  e.name = name;
  e.folder = true;
  e.children = std::move(children);
  return e;
}

}  // namespace

DriveSpec demoDrive() {
  const HfsDate t = hfsDateFromUnix(1672531200);  // 2023-01-01
  DriveSpec d;
  d.table = TableKind::GPT;

  VolumeSpec mac;
  mac.name = "Macintosh HD";
  mac.journal = true;
  mac.blockSize = 4096;
  mac.nodeSize = 8192;
  mac.created = t;
  mac.seed = 2023;

  EntrySpec draft = file("Draft (old).txt", textBytes("First draft, later thrown away.\n"), t + 100);
  draft.deleted = true;
  EntrySpec letter = file("Letter to Anna.txt", textBytes("Dear Anna,\nthe photos from the trip are in the Photos folder.\n"), t + 200);
  std::memcpy(letter.fileType, "TEXT", 4);
  std::memcpy(letter.creator, "ttxt", 4);
  EntrySpec budget = file("Budget 2023.csv", textBytes("month,income,spent\nJan,3200,2810\nFeb,3200,2995\n"), t + 300);
  EntrySpec report = file("Quarterly Report.pdf", pdfLike("Quarterly Report", 6000), t + 400);
  EntrySpec notes = folder("Notes", {file("Meeting notes.txt", textBytes("- ship the demo\n- write the manual\n"), t + 500)});
  EntrySpec documents = folder("Documents", {letter, budget, report, notes, draft});

  EntrySpec beach = file("Beach 001.jpg", jpegLike(11, 60000), t + 1000);
  EntrySpec sunset = file("Sunset 002.jpg", jpegLike(12, 90000), t + 1100);
  sunset.dataFragments = 3;
  EntrySpec lostA = file("Party 001.jpg", jpegLike(13, 30000), t + 1200);
  EntrySpec lostB = file("Party 002.jpg", jpegLike(14, 35000), t + 1300);
  EntrySpec party = folder("Party", {lostA, lostB});
  party.deleted = true;
  EntrySpec photos = folder("Photos", {beach, sunset, party});

  EntrySpec song;
  song.name = "Song for Anna.mp3";
  song.dataSize = 150000;
  song.created = t + 2000;
  EntrySpec archive;
  archive.name = "Large Archive.zip";
  archive.dataSize = 200000;
  archive.dataFragments = 12;  // more than eight: extents in the overflow file
  archive.created = t + 2100;
  EntrySpec music = folder("Music", {song, archive});

  EntrySpec readMe = file("Read Me", textBytes("This file keeps its icon in the resource fork.\n"), t + 3000);
  readMe.rsrc = generatedBytes(77, 5000);
  std::memcpy(readMe.fileType, "ttro", 4);
  std::memcpy(readMe.creator, "ttxt", 4);
  EntrySpec tax = file("Tax 2019.pdf", pdfLike("Tax 2019", 20000), t + 3100);
  tax.deleted = true;

  mac.root = {documents, photos, music, readMe, tax};
  PayloadSpec carvedPhoto;
  carvedPhoto.bytes = jpegLike(21, 45000);
  PayloadSpec carvedPdf;
  carvedPdf.bytes = pdfLike("Invoice 7", 9000);
  mac.freePayloads = {carvedPhoto, carvedPdf};

  VolumeSpec data;
  data.name = "Data";
  data.hfsx = true;
  data.blockSize = 4096;
  data.nodeSize = 4096;
  data.created = t + 86400;
  data.seed = 2024;
  data.root = {file("readme.txt", textBytes("lower case\n"), t + 10), file("README.txt", textBytes("UPPER CASE\n"), t + 20),
               folder("Backups", {file("photos.tar", generatedBytes(5, 40000), t + 30)})};

  PartitionSpec p1;
  p1.kind = PartitionSpec::Kind::HFSPlus;
  p1.volume = mac;
  PartitionSpec p2;
  p2.kind = PartitionSpec::Kind::HFSX;
  p2.volume = data;
  d.partitions = {p1, p2};
  return d;
}

}  // namespace ambrel::mkimage
