// Archives written by the platform's own encoder (and a few broken ones),
// from the shared test data. Skipped when that folder is missing.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "scaninfo/KeyedArchive.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

namespace fs = std::filesystem;

fs::path archives() {
  fs::path shared = test::sharedTestData();
  return shared.empty() ? fs::path() : shared / "keyed_archives";
}

std::vector<uint8_t> load(const std::string& relative) { return test::readFile(archives() / relative); }

#define REQUIRE_TESTDATA()                                                   \
  if (archives().empty() || !fs::is_directory(archives())) GTEST_SKIP() << "shared test data not present"

TEST(AppleArchives, ValuesDecodeAsWritten) {
  REQUIRE_TESTDATA();
  std::string err;
  EXPECT_EQ(KeyedUnarchiver::unarchivedValue(load("libnskeyedarchiver-sandin/integer_10.bplist"), &err), PlistValue(int64_t{10})) << err;
  EXPECT_EQ(KeyedUnarchiver::unarchivedValue(load("libnskeyedarchiver-sandin/bool_true.bplist"), &err), PlistValue(true)) << err;

  // A class instance with inline and object-valued keys.
  KeyedUnarchiver u;
  ASSERT_TRUE(u.load(load("bpylist2/complex_archive.plist"))) << u.error();
  ArchivedObject foo = u.root();
  EXPECT_EQ(foo.className(), "crap.Foo");
  EXPECT_EQ(foo.classChain(), (ClassChain{"crap.Foo", "NSCoder", "NSObject"}));
  EXPECT_EQ(foo.decodeObject("title").string(), "yo");
  EXPECT_EQ(foo.decodeInt64("count"), 42);
  EXPECT_EQ(foo.decodeBool("active"), true);
  EXPECT_FALSE(foo.decodeInt64("absent"));
  EXPECT_EQ(foo.decodeObject("categories").value(), PlistValue(PlistArray{PlistValue("banana"), PlistValue("apple")}));
  EXPECT_EQ(foo.decodeObject("metadata").value(&err),
            PlistValue(PlistDict{{"fruit", "kiwi"}, {"veg", "asparagus"}})) << err;
  // A class we do not know is not a property-list value.
  EXPECT_FALSE(foo.value(&err));
  EXPECT_EQ(err, "an instance of crap.Foo, not a property-list value");

  // A nil member ($null), and an instance whose class key is misspelt.
  ASSERT_TRUE(u.load(load("bpylist2/null_archive.plist"))) << u.error();
  EXPECT_TRUE(u.root().decodeObject("empty").isNil());
  EXPECT_EQ(u.root().decodeObject("title").string(), "yo");
  ASSERT_TRUE(u.load(load("bpylist2/missing_uid_archive.plist"))) << u.error();
  EXPECT_EQ(u.root().className(), "");
  EXPECT_FALSE(u.root().value(&err));
  EXPECT_EQ(err, "an instance without a class");
}

TEST(AppleArchives, RefusalsOfMalformedArchives) {
  REQUIRE_TESTDATA();
  KeyedUnarchiver u;
  EXPECT_FALSE(u.load(load("bpylist2/invalid_type_archive.plist")));
  EXPECT_EQ(u.error(), "not a keyed archive: $archiver is not NSKeyedArchiver");
  EXPECT_FALSE(u.load(load("bpylist2/invalid_version_archive.plist")));
  EXPECT_EQ(u.error(), "not a keyed archive: $version is not 100000");
  EXPECT_FALSE(u.load(load("bpylist2/no_top_archive.plist")));
  EXPECT_EQ(u.error(), "not a keyed archive: no $top dictionary");
  EXPECT_FALSE(u.load(load("bpylist2/no_objects_archive.plist")));  // "$objectives"
  EXPECT_EQ(u.error(), "not a keyed archive: no $objects array");
  EXPECT_FALSE(u.load(load("plaso/truncated.plist")));
  EXPECT_EQ(u.error().rfind("not a keyed archive: ", 0), 0u);
  EXPECT_FALSE(u.load(load("bpylist2/int8.plist")));  // a plain plist
  // Circular instances load; following them is the caller's business, and
  // value() refuses them as foreign classes without looping.
  ASSERT_TRUE(u.load(load("bpylist2/circular_archive.plist")));
  std::string err;
  EXPECT_FALSE(u.root().value(&err));
}

// Every binary archive in the collection decodes as python's plistlib
// decodes it, wherever it holds Foundation values only; the summary written
// with the collection says which files are keyed archives at all.
TEST(AppleArchives, EveryArchiveMatchesAnIndependentReader) {
  REQUIRE_TESTDATA();
  fs::path summaryPath = test::sharedTestData() / "reference_outputs" / "keyed_archives_summary.txt";
  ASSERT_TRUE(fs::exists(summaryPath));
  std::map<std::string, std::string> summary;
  std::ifstream in(summaryPath);
  for (std::string line; std::getline(in, line);) {
    auto sep = line.find(" :: ");
    if (sep != std::string::npos) summary[line.substr(0, sep)] = line.substr(sep + 4);
  }
  test::TempDir dir;
  int loaded = 0, compared = 0;
  for (const auto& e : fs::recursive_directory_iterator(archives())) {
    if (!e.is_regular_file()) continue;
    std::string rel = fs::relative(e.path(), archives()).string();
    auto bytes = test::readFile(e.path());
    KeyedUnarchiver u;
    bool ok = u.load(bytes);
    const std::string& facts = summary[rel];
    bool expected = facts.rfind("keyed archive (binary, $version 100000, $top keys [", 0) == 0 &&
                    facts.find(", 0 objects,") == std::string::npos;
    EXPECT_EQ(ok, expected) << rel << ": " << facts << " / " << u.error();
    if (!ok) continue;
    ++loaded;
    ArchivedObject root = u.root();
    if (!root.exists()) continue;
    std::string err;
    auto value = root.value(&err);
    if (!value) continue;  // instances of classes other than Foundation's
    std::ofstream(dir / "ours.json") << value->toJson();
    std::string out;
    int rc = test::runCommand("python3 " + std::string(AMBREL_SOURCE_DIR) + "/tests/scaninfo/keyed_archive_reader.py compare '" +
                                  e.path().string() + "' " + (dir / "ours.json").string(),
                              &out);
    EXPECT_EQ(rc, 0) << rel << "\n" << out;
    ++compared;
  }
  EXPECT_GE(loaded, 40);
  EXPECT_GE(compared, 10);
  std::printf("loaded %d archives, compared %d with plistlib\n", loaded, compared);
}

}  // namespace
}  // namespace ambrel
