// Size and name filters: which files and folders a filtered listing and a
// filtered save keep, on built volumes, and the values refused.
#include <gtest/gtest.h>

#include "output/OutputHelpers.h"
#include "support/CliRun.h"
#include "tree/EntryFilter.h"
#include "tree/Links.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

// The path column of a TSV listing (standard error left out).
std::set<std::string> treeListed(const std::string& args) {
  std::string out;
  EXPECT_EQ(runCommand(cliPath() + " tree " + args + " 2>/dev/null", &out), 0) << args;
  return ambrel::test::listedPaths(out);
}

mk::VolumeSpec mixedVolume() {
  mk::VolumeSpec v;
  v.name = "Mixed";
  v.root = {folderOf("Docs", {fileSpec("a.txt", 1200), fileSpec("b.pdf", 50000)}),
            folderOf("Pics", {fileSpec("c.jpg", 300000, 0, 3), fileSpec("IMG_0001.JPG", 2000)}),
            folderOf("Deep", {folderOf("Sub", {fileSpec("x.pdf", 70000), fileSpec(".pdf", 500)})})};
  return v;
}

std::set<std::string> rooted(std::initializer_list<const char*> paths) {
  std::set<std::string> out{"/Root"};
  for (const char* p : paths) out.insert(std::string("/Root/") + p);
  return out;
}

}  // namespace

TEST(EntryFilter, SizesAndExtensionListsAreReadOrRefused) {
  EXPECT_EQ(parseSizeText("1500"), 1500u);
  EXPECT_EQ(parseSizeText("1500b"), 1500u);
  EXPECT_EQ(parseSizeText("500KB"), 500000u);
  EXPECT_EQ(parseSizeText(" 1.5mb "), 1500000u);
  EXPECT_EQ(parseSizeText("2GB"), 2000000000u);
  EXPECT_EQ(parseSizeText("3TB"), 3000000000000u);
  for (const char* bad : {"", "MB", "10XB", "-5", "1.2.3", "ten", "1e3", "99999999999999999999", "20000000TB", "9999999.5TB"})
    EXPECT_FALSE(parseSizeText(bad)) << bad;
  EXPECT_EQ(parseExtensionList("jpg,.PDF, png,,"), (std::vector<std::string>{"jpg", "pdf", "png"}));
  EXPECT_TRUE(parseExtensionList(" , ").empty());
}

TEST(Filter, ListingKeepsTheFilesThatPassAndOnlyTheFoldersHoldingThem) {
  TempDir dir;
  const BuiltVolume b = buildAndScan(dir, mixedVolume());
  const std::string image = "'" + b.image + "'";
  // ".pdf" is a name with no extension.
  EXPECT_EQ(treeListed(image + " --ext pdf"), rooted({"Docs", "Docs/b.pdf", "Deep", "Deep/Sub", "Deep/Sub/x.pdf"}));
  EXPECT_EQ(treeListed(image + " --ext TXT,jpg"), rooted({"Docs", "Docs/a.txt", "Pics", "Pics/c.jpg", "Pics/IMG_0001.JPG"}));
  // Patterns match in any case unless told otherwise, and any one of them is enough.
  EXPECT_EQ(treeListed(image + " --name 'img_*'"), rooted({"Pics", "Pics/IMG_0001.JPG"}));
  EXPECT_EQ(treeListed(image + " --name 'img_*' --match-case"), rooted({}));
  EXPECT_EQ(treeListed(image + " --name 'a.*' --name '?.pdf'"),
            rooted({"Docs", "Docs/a.txt", "Docs/b.pdf", "Deep", "Deep/Sub", "Deep/Sub/x.pdf"}));
  // Both bounds count as inside; the size and the names must all pass.
  EXPECT_EQ(treeListed(image + " --min-size 50KB --max-size 70000"),
            rooted({"Docs", "Docs/b.pdf", "Deep", "Deep/Sub", "Deep/Sub/x.pdf"}));
  EXPECT_EQ(treeListed(image + " --min-size 50KB --ext jpg"), rooted({"Pics", "Pics/c.jpg"}));
  EXPECT_EQ(treeListed(image + " --max-size 1kb"), rooted({"Deep", "Deep/Sub", "Deep/Sub/.pdf"}));
  // Without a filter nothing is left out.
  EXPECT_EQ(treeListed(image).size(), 11u);
}

TEST(Filter, RecoverSavesOnlyWhatPassesWithinTheSelection) {
  TempDir dir;
  const BuiltVolume b = buildAndScan(dir, mixedVolume());
  std::string out;
  const fs::path to = dir / "out";
  ASSERT_EQ(runCli("recover '" + b.image + "' --out '" + to.string() + "' --ext pdf,jpg --max-size 100KB", out), 0)
      << out;
  // c.jpg is too large; a.txt and .pdf have another extension or none.
  EXPECT_EQ(pathsUnder(to / "Root"), (std::set<std::string>{"Docs", "Docs/b.pdf", "Deep", "Deep/Sub", "Deep/Sub/x.pdf",
                                                            "Pics", "Pics/IMG_0001.JPG"}));
  for (const char* path : {"Docs/b.pdf", "Deep/Sub/x.pdf", "Pics/IMG_0001.JPG"}) {
    const auto* f = b.vol().find(path);
    ASSERT_NE(f, nullptr) << path;
    EXPECT_EQ(readFile(to / "Root" / path), mk::generatedBytes(f->dataSeed, f->dataSize)) << path;
  }
  EXPECT_NE(out.find(": 3 files, 122000 bytes"), std::string::npos) << out;

  // The filters narrow what --select picked.
  const fs::path docs = dir / "docs";
  ASSERT_EQ(runCli("recover '" + b.image + "' --out '" + docs.string() + "' --select '/Root/Docs' --ext pdf", out), 0)
      << out;
  EXPECT_EQ(pathsUnder(docs / "Root"), (std::set<std::string>{"Docs", "Docs/b.pdf"}));

  EXPECT_EQ(runCli("recover '" + b.image + "' --out '" + (dir / "none").string() + "' --ext doc", out), 1);
  EXPECT_NE(out.find("no file passes the size and name filters"), std::string::npos) << out;
  EXPECT_FALSE(fs::exists(dir / "none"));
}

TEST(Filter, FolderLinksAreKeptWhenTheFolderTheyShowHoldsAPassingFile) {
  TempDir dir;
  mk::VolumeSpec spec;
  mk::EntrySpec photosLink, notesLink, loop;
  photosLink.name = "Photos";
  photosLink.folderLinkTo = "2024-01-01/Photos";
  notesLink.name = "notes.txt";
  notesLink.hardLinkTo = "2024-01-01/notes.txt";
  loop.name = "back";
  loop.folderLinkTo = "2024-01-01/Photos";
  spec.root = {folderOf("2024-01-01", {folderOf("Photos", {fileSpec("a.jpg", 30000), fileSpec("b.png", 900), loop}),
                                         fileSpec("notes.txt", 12)}),
               folderOf("2024-02-01", {photosLink, notesLink}), folderOf("2024-03-01", {notesLink})};
  const BuiltVolume b = buildAndScan(dir, spec);
  Volume& v = *b.scan.volume;
  ASSERT_EQ(v.linksUnresolved, 0u);

  EntryFilter jpg;
  jpg.extensions = {"jpg"};
  const FilteredTree filtered(*v.dirRoot, jpg);
  std::set<std::string> listed;
  forEachThroughLinks(
      *v.dirRoot,
      [&](const HDIR& e, const std::string& p) {
        if (!filtered.keeps(e)) return false;
        listed.insert(p + "/" + std::string(e.fileName()));
        return true;
      },
      [](const HDIR&, const std::string&) {});
  // The private folder holding the linked folder is listed as the volume has it.
  const std::string linked = "/Root/.HFS+ Private Directory Data\r";
  for (const std::string& p : {linked, linked + "/dir_17", linked + "/dir_17/a.jpg", linked + "/dir_17/back"})
    EXPECT_EQ(listed.erase(p), 1u) << p;
  EXPECT_EQ(listed, rooted({"2024-01-01", "2024-01-01/Photos", "2024-01-01/Photos/a.jpg", "2024-01-01/Photos/back",
                            "2024-02-01", "2024-02-01/Photos", "2024-02-01/Photos/a.jpg", "2024-02-01/Photos/back"}));

  // Saved: the jpg at both places, no png, no notes, no snapshot holding
  // none, and no private folder (its one entry is saved at its links).
  CheckController(v.dirRoot.get(), true).run();
  unmarkFilteredOut(*v.dirRoot, filtered);
  Saver::Options options;
  options.finalAlert = false;
  options.filter = &filtered;
  const fs::path to = dir / "out";
  fs::create_directories(to);
  const SaveResult r = Saver(*v.dirRoot, saveSourceOf(v), nullptr, options).saveFilesAndFolders(to.string());
  EXPECT_EQ(r.saveCount, 2u);
  EXPECT_EQ(pathsUnder(to / "Root"),
            (std::set<std::string>{"2024-01-01", "2024-01-01/Photos", "2024-01-01/Photos/a.jpg", "2024-01-01/Photos/back",
                                   "2024-02-01", "2024-02-01/Photos", "2024-02-01/Photos/a.jpg",
                                   "2024-02-01/Photos/back"}));
  const mk::FileLayout* a = nullptr;
  for (const auto& e : b.vol().entries)
    if (e.name == "a.jpg" && !e.folder) a = &e;
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(readFile(to / "Root/2024-02-01/Photos/a.jpg"), mk::generatedBytes(a->dataSeed, a->dataSize));
}

TEST(Filter, BadValuesAreRefusedBeforeAnyScan) {
  TempDir dir;
  const BuiltVolume b = buildAndScan(dir, mixedVolume());
  const std::string image = "'" + b.image + "'";
  const std::string out = "--out '" + (dir / "o").string() + "'";
  struct Case {
    std::string args, message;
  };
  const Case cases[] = {
      {"tree " + image + " --min-size 10XB", "--min-size \"10XB\" is not a size"},
      {"tree " + image + " --min-size 2MB --max-size 1MB", "--min-size 2MB is above --max-size 1MB: no file could pass"},
      {"recover " + image + " " + out + " --max-size 1,5MB", "--max-size \"1,5MB\" is not a size"},
      {"recover " + image + " " + out + " --min-size 1GB --max-size 1KB", "--min-size 1GB is above --max-size 1KB"},
      {"tree " + image + " --ext ,", "--ext \",\" names no extension"},
      {"carve " + image + " --all --min-file-size 5QB", "--min-file-size \"5QB\" is not a size"},
      {"carve " + image + " --all --min-file-size 9KB --max-file-size 3KB", "--min-file-size 9KB is above --max-file-size 3KB"},
  };
  for (const auto& c : cases) {
    std::string text;
    EXPECT_EQ(runCli(c.args, text), 2) << c.args << "\n" << text;
    EXPECT_NE(text.find(c.message), std::string::npos) << c.args << "\n" << text;
    // Refused before the scan: no listing header, nothing saved.
    EXPECT_EQ(text.find("path\ttype"), std::string::npos) << c.args;
  }
  EXPECT_FALSE(fs::exists(dir / "o"));
}
