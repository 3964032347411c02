#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <set>

#include "scaninfo/ArchivedClasses.h"
#include "scaninfo/BinaryPlistCheck.h"
#include "scaninfo/KeyedArchive.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

using test::TempDir;

std::string readerScript() { return std::string(AMBREL_SOURCE_DIR) + "/tests/scaninfo/keyed_archive_reader.py"; }

// What python's plistlib sees in an archive we wrote.
std::string describeWithPlistlib(const std::vector<uint8_t>& archive) {
  TempDir dir;
  test::writeFile(dir / "a.bplist", archive);
  std::string out;
  int rc = test::runCommand("python3 " + readerScript() + " describe " + (dir / "a.bplist").string(), &out);
  EXPECT_EQ(rc, 0) << out;
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

TEST(KeyedArchive, MarkersAreArchivedStringsOfEqualLength) {
  auto incomplete = KeyedArchiver::archivedData(PlistValue("UnComple"));
  auto complete = KeyedArchiver::archivedData(PlistValue("Complete"));
  EXPECT_EQ(incomplete.size(), complete.size());
  EXPECT_EQ(std::string(complete.begin(), complete.begin() + 8), "bplist00");
  EXPECT_EQ(describeWithPlistlib(complete),
            R"({"archiver":"NSKeyedArchiver","classes":[],"duplicates":[],"first":"$null","objects":2,"root":"Complete","top":{"root":1},"version":100000})");
  EXPECT_EQ(KeyedUnarchiver::unarchivedValue(complete), PlistValue("Complete"));
  EXPECT_EQ(KeyedUnarchiver::unarchivedValue(incomplete), PlistValue("UnComple"));
}

TEST(KeyedArchive, FoundationValuesRoundTripAndAreSeenByPlistlib) {
  PlistDict partition{{"Volume Start", int64_t{409640}},
                      {"Volume Size In Sectors", int64_t{5000000000}},
                      {"Volume Name", "Mac HD \xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"},
                      {"Volume Scan Type", int64_t{0}},
                      {"Negative", int64_t{-26}},
                      {"Big", int64_t{INT64_MAX}},
                      {"WhetherUSB", true},
                      {"Raw", PlistData{0x00, 0xff, 0x10}},
                      {"Ratio", 0.25},
                      {"Nested", PlistArray{PlistValue("a"), PlistValue(), PlistValue(PlistDict{{"k", "Volume Name"}})}}};
  PlistArray list{PlistValue(partition), PlistValue(partition)};
  for (Containers kind : {Containers::Immutable, Containers::Mutable}) {
    auto bytes = KeyedArchiver::archivedData(PlistValue(list), kind);
    std::string err;
    auto back = KeyedUnarchiver::unarchivedValue(bytes, &err);
    ASSERT_TRUE(back) << err;
    EXPECT_EQ(back->toJson(), PlistValue(list).toJson());

    std::string seen = describeWithPlistlib(bytes);
    // Strings such as "Volume Name" appear as both a key and a value, and the
    // partition twice: each plain object and each class is stored once.
    EXPECT_NE(seen.find(R"("duplicates":[])"), std::string::npos) << seen;
    if (kind == Containers::Mutable) {
      EXPECT_NE(seen.find(R"("classes":[["NSMutableDictionary","NSDictionary","NSObject"],["NSMutableArray","NSArray","NSObject"]])"), std::string::npos) << seen;
    } else {
      EXPECT_NE(seen.find(R"("classes":[["NSDictionary","NSObject"],["NSArray","NSObject"]])"), std::string::npos) << seen;
    }
    EXPECT_NE(seen.find(R"("Volume Size In Sectors":5000000000)"), std::string::npos) << seen;
    EXPECT_NE(seen.find(R"("Big":9223372036854775807)"), std::string::npos) << seen;
    EXPECT_NE(seen.find(R"("Negative":-26)"), std::string::npos) << seen;
    EXPECT_NE(seen.find(R"("Raw":"00ff10")"), std::string::npos) << seen;
    EXPECT_NE(seen.find("\"Mac HD \xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\""), std::string::npos) << seen;
  }
}

VolumeArchive sampleVolume(int32_t type) {
  VolumeArchive v;
  v.volumeScanType = type;
  v.startSector = 409640;
  v.volumeName = "Macintosh HD";
  v.rootName = "Macintosh HD";
  v.scanMode = "Normal Scan";
  v.lostFoldersPath = "Lost Folder";
  v.lostFilesPath = "Lost Files";
  v.lostFileName = "Lost File";
  v.deletedFilesPath = "Deleted Files";
  v.deletedFileName = "Deleted File";
  v.path = "/dev/sdb";
  v.model = "Disk Model";
  v.serial = "S3RIAL";
  v.revision = "1.0";
  v.sizeInSect = 976773168;
  v.HPlusVolStart = 409640;
  v.blockSize = 8;
  return v;
}

TEST(KeyedArchive, VolumeKeysDependOnScanType) {
  auto partition = KeyedArchiver::archivedData(sampleVolume(0));
  EXPECT_EQ(describeWithPlistlib(partition),
            R"({"archiver":"NSKeyedArchiver","classes":[["Volume","DMedia","NSObject"]],"duplicates":[],"first":"$null","objects":16,"root":{"$classes":["Volume","DMedia","NSObject"],)"
            R"("HPlusVolStart":409640,"blockSize":8,"deletedFileName":"Deleted File","deletedFilesPath":"Deleted Files",)"
            R"("lostFileName":"Lost File","lostFilesPath":"Lost Files","lostFoldersPath":"Lost Folder","model":"Disk Model",)"
            R"("path":"/dev/sdb","revision":"1.0","rootName":"Macintosh HD","scanMode":"Normal Scan","serial":"S3RIAL",)"
            R"("sizeInSect":976773168,"startSector":409640,"volumeName":"Macintosh HD","volumeScanType":0},"top":{"root":1},"version":100000})");

  auto device = KeyedArchiver::archivedData(sampleVolume(2));
  EXPECT_EQ(describeWithPlistlib(device),
            R"({"archiver":"NSKeyedArchiver","classes":[["Volume","DMedia","NSObject"]],"duplicates":[],"first":"$null","objects":7,"root":{"$classes":["Volume","DMedia","NSObject"],)"
            R"("HPlusVolStart":409640,"blockSize":8,"deletedFilesPath":"Deleted Files","path":"/dev/sdb","rootName":"Macintosh HD",)"
            R"("sizeInSect":976773168,"volumeName":"Macintosh HD","volumeScanType":2},"top":{"root":1},"version":100000})");

  for (int32_t type : {0, 1, 3}) {
    KeyedUnarchiver u;
    ASSERT_TRUE(u.load(KeyedArchiver::archivedData(sampleVolume(type))));
    std::string err;
    auto back = VolumeArchive::decode(u.root(), err);
    ASSERT_TRUE(back) << err;
    EXPECT_EQ(*back, sampleVolume(type));
  }
  // A volume device keeps only its own keys; the rest read back empty.
  KeyedUnarchiver u;
  ASSERT_TRUE(u.load(device));
  std::string err;
  auto back = VolumeArchive::decode(u.root(), err);
  ASSERT_TRUE(back) << err;
  EXPECT_EQ(back->volumeName, "Macintosh HD");
  EXPECT_EQ(back->model, "");
  EXPECT_EQ(back->startSector, 0u);
  EXPECT_EQ(back->sizeInSect, 976773168u);
}

TEST(KeyedArchive, DMediaAndWrongClassesAreTold) {
  DMediaArchive d;
  d.path = "/dev/sdc";
  d.model = "M";
  d.serial = "S";
  d.revision = "R";
  d.sizeInSect = 1u << 31;
  auto bytes = KeyedArchiver::archivedData(d);
  EXPECT_NE(describeWithPlistlib(bytes).find(R"("$classes":["DMedia","NSObject"],"model":"M","path":"/dev/sdc","revision":"R","serial":"S","sizeInSect":2147483648})"),
            std::string::npos);
  KeyedUnarchiver u;
  ASSERT_TRUE(u.load(bytes));
  std::string err;
  auto back = DMediaArchive::decode(u.root(), err);
  ASSERT_TRUE(back) << err;
  EXPECT_EQ(back->sizeInSect, 1u << 31);
  EXPECT_FALSE(VolumeArchive::decode(u.root(), err));
  EXPECT_EQ(err, "expected a Volume, found \"DMedia\"");
  // A Volume is a DMedia too.
  ASSERT_TRUE(u.load(KeyedArchiver::archivedData(sampleVolume(0))));
  EXPECT_TRUE(DMediaArchive::decode(u.root(), err));
}

std::vector<SigNodeArchive> sampleDatabase() {
  SigArchive jpg;
  jpg.preInstalled = true;
  jpg.categoryID = 1;
  jpg.category = "Images";
  jpg.typeOfFile = 3;
  jpg.software = "JPEG Image";
  jpg.extension = "jpg";
  jpg.offset = 0;
  jpg.headerLength = 3;
  jpg.header = 0xFFD8FF;
  jpg.defaultSize = 0xFFFFFFF0u;  // above INT32_MAX: travels as a negative int32
  jpg.userSize = 0x8000000000000001ull;
  jpg.skipSize = 7;
  jpg.skipFileSize = true;
  SigArchive mine = jpg;
  mine.preInstalled = false;
  mine.software = "My Type";
  mine.extension = "myt";
  mine.typeOfFile = 0;
  SigNodeArchive images;
  images.fileType = 1;
  images.category = "Images";
  images.children.emplace();
  for (const SigArchive& s : {jpg, mine}) {
    SigNodeArchive n;
    n.fileType = 2;
    n.category = "Images";
    n.selected = 1;
    n.sig = s;
    images.children->push_back(n);
  }
  SigNodeArchive empty;
  empty.fileType = 1;
  empty.category = "Empty";
  empty.children.emplace();
  return {images, empty};
}

TEST(KeyedArchive, SignatureDatabaseRoundTrips) {
  auto db = sampleDatabase();
  auto bytes = archiveSignatureDatabase(db);
  std::string err;
  auto back = unarchiveSignatureDatabase(bytes, err);
  ASSERT_TRUE(back) << err;
  EXPECT_EQ(*back, db);
  EXPECT_FALSE((*back)[0].children->at(0).children.has_value());  // nil children stay nil

  std::string seen = describeWithPlistlib(bytes);
  EXPECT_NE(seen.find(R"("root":[{"$classes":["SigNode","NSObject"],"category":"Images","children":[{"$classes":["SigNode","NSObject"],"category":"Images","children":null,"fileType":2,)"
                      R"("selected":1,"sig":{"$classes":["Sig","NSObject"],"category":"Images","categoryID":1,"defaultSize":-16,"extension":"jpg","foundSize":0,)"
                      R"("header":16767231,"headerLength":3,"offset":0,"preInstalled":true,"skipFileSize":true,"skipSize":7,"software":"JPEG Image",)"
                      R"("typeOfFile":3,"userSize":-9223372036854775807}})"),
            std::string::npos)
      << seen;
  EXPECT_NE(seen.find(R"({"$classes":["SigNode","NSObject"],"category":"Empty","children":[],"fileType":1,"selected":0,"sig":null})"), std::string::npos) << seen;
  EXPECT_NE(seen.find(R"("duplicates":[])"), std::string::npos) << seen;
}

// A tiny hand-made binary plist: `objects` are raw object bytes, the last
// one the top; refs are one byte.
std::vector<uint8_t> bplist(const std::vector<std::vector<uint8_t>>& objects, size_t top) {
  std::vector<uint8_t> out{'b', 'p', 'l', 'i', 's', 't', '0', '0'};
  std::vector<uint8_t> offsets;
  for (const auto& o : objects) {
    offsets.push_back(static_cast<uint8_t>(out.size()));
    out.insert(out.end(), o.begin(), o.end());
  }
  size_t table = out.size();
  out.insert(out.end(), offsets.begin(), offsets.end());
  uint8_t trailer[32] = {};
  trailer[6] = 1;
  trailer[7] = 1;
  trailer[15] = static_cast<uint8_t>(objects.size());
  trailer[23] = static_cast<uint8_t>(top);
  trailer[31] = static_cast<uint8_t>(table);
  out.insert(out.end(), trailer, trailer + 32);
  return out;
}

TEST(KeyedArchive, HostileBinaryPlistsAreRefusedBeforeParsing) {
  std::string err;
  // 30 arrays, each holding the next twice: 2^30 nodes once expanded.
  std::vector<std::vector<uint8_t>> dag;
  for (uint8_t i = 0; i < 30; ++i) dag.push_back({0xA2, static_cast<uint8_t>(i + 1), static_cast<uint8_t>(i + 1)});
  dag.push_back({0x10, 0x00});
  EXPECT_FALSE(checkBinaryPlist(bplist(dag, 0), err));
  EXPECT_EQ(err, "shared objects expand beyond the file's size");
  // The same shape three levels deep is fine.
  std::vector<std::vector<uint8_t>> small{{0xA2, 1, 1}, {0xA2, 2, 2}, {0x10, 0x07}};
  EXPECT_TRUE(checkBinaryPlist(bplist(small, 0), err)) << err;
  // An array holding itself.
  EXPECT_FALSE(checkBinaryPlist(bplist({{0xA1, 0}}, 0), err));
  EXPECT_EQ(err, "object references form a loop");
  // Nesting deeper than the reader's stack should go.
  std::vector<std::vector<uint8_t>> deep;
  for (int i = 0; i < 100; ++i) deep.push_back({0xA1, static_cast<uint8_t>(i + 1)});
  deep.push_back({0x10, 0x00});
  EXPECT_TRUE(checkBinaryPlist(bplist(deep, 0), err)) << err;
  // A reference past the object table, a length past the object area, a
  // dictionary keyed by a number, an unknown marker.
  EXPECT_FALSE(checkBinaryPlist(bplist({{0xA1, 5}}, 0), err));
  EXPECT_EQ(err, "object 0 refers to a missing object");
  EXPECT_FALSE(checkBinaryPlist(bplist({{0x5F, 0x10, 0xFF, 'a'}}, 0), err));
  EXPECT_EQ(err, "object 0 runs past the object area");
  EXPECT_FALSE(checkBinaryPlist(bplist({{0xD1, 1, 1}, {0x10, 0x01}}, 0), err));
  EXPECT_EQ(err, "object 0 has a key that is not a string");
  EXPECT_FALSE(checkBinaryPlist(bplist({{0x70}}, 0), err));
  EXPECT_EQ(err, "object 0 has an unknown type");
  auto ok = bplist({{0x51, 'a'}}, 0);
  EXPECT_TRUE(checkBinaryPlist(ok, err)) << err;
  ok[ok.size() - 1] = 0xF0;  // offset table beyond the file
  EXPECT_FALSE(checkBinaryPlist(ok, err));
  EXPECT_EQ(err, "offset table outside the file");
}

TEST(KeyedArchive, ArchiveLevelLoopsAndBadReferencesAreRefused) {
  // Built with plistlib, which writes UIDs exactly as given.
  TempDir dir;
  auto make = [&](const std::string& name, const std::string& objects, const std::string& top = "{'root': UID(1)}",
                  const std::string& header = "'$version': 100000, '$archiver': 'NSKeyedArchiver'") {
    std::ofstream(dir / "make.py") << "import plistlib\nfrom plistlib import UID\n"
                                   << "open('" << (dir / name).string() << "','wb').write(plistlib.dumps({" << header
                                   << ", '$top': " << top << ", '$objects': " << objects << "}, fmt=plistlib.FMT_BINARY))\n";
    EXPECT_EQ(test::runCommand("python3 " + (dir / "make.py").string()), 0);
    return test::readFile(dir / name);
  };
  const std::string arrayClass = "{'$classname': 'NSArray', '$classes': ['NSArray', 'NSObject']}";
  std::string err;
  // An array that contains itself.
  auto loop = make("loop", "['$null', {'NS.objects': [UID(1)], '$class': UID(2)}, " + arrayClass + "]");
  EXPECT_FALSE(KeyedUnarchiver::unarchivedValue(loop, &err));
  EXPECT_EQ(err, "the object graph has a loop");
  // Arrays that share children 40 levels deep: 2^40 values if expanded.
  std::string objects = "['$null'";
  for (int i = 1; i <= 40; ++i)
    objects += ", {'NS.objects': [UID(" + std::to_string(i + 1) + "), UID(" + std::to_string(i + 1) + ")], '$class': UID(42)}";
  objects += ", 'leaf', " + arrayClass + "]";
  auto bomb = make("bomb", objects);
  EXPECT_FALSE(KeyedUnarchiver::unarchivedValue(bomb, &err));
  EXPECT_EQ(err, "the object graph expands beyond the archive's size");
  // A UID past $objects.
  auto missing = make("missing", "['$null', {'NS.objects': [UID(9)], '$class': UID(2)}, " + arrayClass + "]");
  EXPECT_FALSE(KeyedUnarchiver::unarchivedValue(missing, &err));
  EXPECT_EQ(err, "an array with a bad member list");
  // Another archiver, another version, no $top.
  KeyedUnarchiver u;
  EXPECT_FALSE(u.load(make("a", "['$null', 'x']", "{'root': UID(1)}", "'$version': 100000, '$archiver': 'NSArchiver'")));
  EXPECT_EQ(u.error(), "not a keyed archive: $archiver is not NSKeyedArchiver");
  EXPECT_FALSE(u.load(make("v", "['$null', 'x']", "{'root': UID(1)}", "'$version': 10000, '$archiver': 'NSKeyedArchiver'")));
  EXPECT_EQ(u.error(), "not a keyed archive: $version is not 100000");
  EXPECT_FALSE(u.load(std::vector<uint8_t>{}));
  auto root = make("noroot", "['$null', 'x']", "{'rooty': UID(1)}");
  ASSERT_TRUE(u.load(root));
  EXPECT_FALSE(u.root().exists());
  EXPECT_EQ(u.top("rooty").string(), "x");
}

}  // namespace
}  // namespace ambrel
