// The signature database: the pre-installed table and its compiled files,
// where the files are found, loading and the two-step reload, the add
// dialog's checks and messages, removal, marks, and the selection for a search.
#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <set>

#include "CarveImage.h"
#include "carving/SignatureTable.h"

namespace ambrel::test {
namespace {

// A resource folder holding copies of the built database, and a user folder.
struct Files {
  TempDir dir;
  SignatureFiles files;
  Files() {
    std::filesystem::create_directories(dir / "share");
    for (const char* name : {"Signature.dat", "Signature_backup.dat"})
      std::filesystem::copy_file(builtResourceDir() + "/" + name, dir / "share" / name);
    files.resourceDir = (dir / "share").string();
    files.userCopy = (dir / "home" / "ambrel" / "Signature.dat").string();
  }
};

TEST(SignatureTable, TheSourceTableCompilesToTheBuiltFiles) {
  const auto table = parseSignatureTable(sourceText("resources/signatures.table"));
  EXPECT_TRUE(table.errors.empty()) << table.errors.front();
  const auto built = test::readFile(builtResourceDir() + "/Signature.dat");
  EXPECT_EQ(archiveSignatureDatabase(table.categories), built);
  EXPECT_EQ(test::readFile(builtResourceDir() + "/Signature_backup.dat"), built);
  // Every record as the database requires: pre-installed, its category's
  // name, 1 to 8 header bytes right-aligned.
  std::set<uint32_t> codes;
  for (const auto& c : table.categories) {
    EXPECT_EQ(c.fileType, kSigCategoryNode);
    ASSERT_TRUE(c.children);
    for (const auto& n : *c.children) {
      ASSERT_TRUE(n.sig);
      EXPECT_EQ(n.fileType, kSigFileTypeNode);
      EXPECT_TRUE(n.sig->preInstalled);
      EXPECT_EQ(n.sig->category, c.category);
      EXPECT_GE(n.sig->headerLength, 1);
      EXPECT_LE(n.sig->headerLength, 8);
      if (n.sig->headerLength < 8) {
        EXPECT_EQ(n.sig->header >> (8 * n.sig->headerLength), 0u);
      }
      codes.insert(n.sig->typeOfFile);
    }
  }
  for (uint32_t code = 1; code <= kHighestValidatorCode; ++code) {
    if (code != 7 && code != 22) {
      EXPECT_TRUE(codes.count(code)) << "no record for code " << code;
    }
  }
}

TEST(SignatureTable, BadLinesAreReportedWithTheirNumbers) {
  const auto r = parseSignatureTable(
      "# comment\n"
      "Images | JPEG | jpg | FFD8FF | 0 | 3 | 1 | 0\n"
      "Images | odd | x | ABC | 0 | 3 | 1 | 0\n"
      "Images | long | x | 00112233445566778899 | 0 | 3 | 1 | 0\n"
      "Images | far | x | FF | 1025 | 3 | 1 | 0\n"
      "Images | code | x | FF | 0 | 30 | 1 | 0\n"
      "Images | dot | .x | FF | 0 | 3 | 1 | 0\n"
      "Images | cols | x | FF | 0 | 3 | 1\n");
  ASSERT_EQ(r.errors.size(), 6u);
  EXPECT_EQ(r.errors[0].rfind("line 3:", 0), 0u);
  EXPECT_EQ(r.errors[5].rfind("line 8:", 0), 0u);
  ASSERT_EQ(r.categories.size(), 1u);
  EXPECT_EQ(r.categories[0].children->size(), 1u);
  EXPECT_EQ(r.categories[0].children->at(0).sig->header, 0xFFD8FFu);
  EXPECT_EQ(r.categories[0].children->at(0).sig->categoryID, 1);
}

// Every validator is reached: one block per record, starting with its
// signature, in a drive of zeros; every validator refuses and says it ran.
std::set<uint32_t> gReached;
template <uint32_t Code>
bool reached(Candidate&, Sig&) {
  gReached.insert(Code);
  return false;
}
template <uint32_t... Codes>
void installRecorders(ValidatorTable& t, std::integer_sequence<uint32_t, Codes...>) {
  ((t.byCode[Codes] = reached<Codes>), ...);
}

TEST(CarvingDatabase, EveryValidatorIsReached) {
  const BuiltDatabase db = builtDatabase();
  TempDir dir;
  std::vector<Planted> blocks;
  uint64_t sector = 0;
  for (const Sig* s : db.all()) {
    std::vector<uint8_t> bytes(s->offset + s->headerLength, 0);
    for (int i = 0; i < s->headerLength; ++i)
      bytes[s->offset + i] = static_cast<uint8_t>(s->header >> (8 * (s->headerLength - 1 - i)));
    blocks.push_back({s->software, sector, bytes});
    sector += 4;
  }
  std::vector<uint8_t> drive((sector + 4) * 512, 0);
  for (const auto& p : blocks) std::copy(p.bytes.begin(), p.bytes.end(), drive.begin() + p.sector * 512);
  writeFile(dir / "drive.img", drive);
  ValidatorTable table;
  installRecorders(table, std::make_integer_sequence<uint32_t, kHighestValidatorCode + 1>{});
  table.byCode[0] = table.byCode[7] = table.byCode[22] = nullptr;
  gReached.clear();
  DriveUnderSearch search(dir / "drive.img");
  SignatureSearch(*search.volume, db.all(), table).signatureSearchDisk();
  for (uint32_t code = 1; code <= kHighestValidatorCode; ++code) {
    if (code != 7 && code != 22) {
      EXPECT_TRUE(gReached.count(code)) << validatorName(code) << " is never reached";
    }
  }
}

TEST(CarvingDatabase, FilesAreFoundFromTheEnvironmentAndTheUsersDataFolder) {
  TempDir dir;
  const char* oldRes = std::getenv("AMBREL_RESOURCE_DIR");
  const char* oldXdg = std::getenv("XDG_DATA_HOME");
  const std::string keepRes = oldRes ? oldRes : "", keepXdg = oldXdg ? oldXdg : "";
  ::setenv("AMBREL_RESOURCE_DIR", (dir / "res").c_str(), 1);
  ::setenv("XDG_DATA_HOME", (dir / "data").c_str(), 1);
  const SignatureFiles f = signatureFiles();
  EXPECT_EQ(f.resourceDir, (dir / "res").string());
  EXPECT_EQ(f.userCopy, (dir / "data" / "ambrel" / "Signature.dat").string());
  EXPECT_EQ(f.working(), f.installed()) << "no user copy yet";
  std::filesystem::create_directories(dir / "data" / "ambrel");
  writeFile(f.userCopy, {1});
  EXPECT_EQ(f.working(), f.userCopy);
  oldRes ? ::setenv("AMBREL_RESOURCE_DIR", keepRes.c_str(), 1) : ::unsetenv("AMBREL_RESOURCE_DIR");
  oldXdg ? ::setenv("XDG_DATA_HOME", keepXdg.c_str(), 1) : ::unsetenv("XDG_DATA_HOME");
  // Without the variable, a build-tree run finds the built files.
  if (!oldRes) {
    EXPECT_EQ(signatureFiles().resourceDir, builtResourceDir());
  }
}

TEST(CarvingDatabase, LoadingAndTheTwoStepReload) {
  Files f;
  SignatureDatabase db(f.files);
  SigButtons b = db.loadSigData();
  EXPECT_FALSE(db.sigRootArray().empty());
  EXPECT_TRUE(b.selectAll && b.deselectAll && b.remove && b.add && b.next);
  EXPECT_FALSE(b.loadFileTypes);
  for (const auto& c : db.sigRootArray()) {
    EXPECT_EQ(c->parent, nullptr);
    for (const auto& child : c->children()) EXPECT_EQ(child->parent, c.get());
  }

  // A corrupt working database: the empty tree; the first reload reads it
  // again, the second the backup.
  writeFile(f.files.installed(), {'b', 'p', 'l', 'i', 's', 't', '0', '0', 1, 2, 3});
  SignatureDatabase broken(f.files);
  b = broken.loadSigData();
  EXPECT_TRUE(broken.sigRootArray().empty());
  EXPECT_FALSE(b.selectAll || b.deselectAll || b.remove || b.add || b.next);
  EXPECT_TRUE(b.loadFileTypes);
  b = broken.reloadSigData();
  EXPECT_TRUE(broken.sigRootArray().empty());
  EXPECT_EQ(broken.emptySigNodeText(),
            "Still no file types showing here. Click on \"Load File Types\" button to reload backup.");
  b = broken.reloadSigData();
  EXPECT_EQ(broken.sigDataLoadCount(), 2);
  EXPECT_FALSE(broken.sigRootArray().empty());
  EXPECT_FALSE(b.loadFileTypes);
  EXPECT_TRUE(b.next);

  // Both gone: the second message.
  std::filesystem::remove(f.files.installed());
  std::filesystem::remove(f.files.backup());
  SignatureDatabase none(f.files);
  none.loadSigData();
  none.reloadSigData();
  none.reloadSigData();
  EXPECT_TRUE(none.sigRootArray().empty());
  EXPECT_EQ(none.emptySigNodeText(), "Still no file types showing here. Contact support.");
}

TEST(CarvingDatabase, OddDatabasesLoadBoundedOrNotAtAll) {
  Files f;
  // A category without children, a file type with a 0-byte and one with a
  // 9-byte header: they load, and the search passes over what names no bytes.
  SigNode::ChildArray root;
  auto empty = std::make_unique<SigNode>();
  empty->fileType = kSigCategoryNode;
  empty->category = "Empty";
  root.push_back(std::move(empty));
  auto odd = std::make_unique<SigNode>();
  odd->fileType = kSigCategoryNode;
  odd->category = "Odd";
  for (uint8_t length : {0, 9}) {
    auto n = std::make_unique<SigNode>();
    n->fileType = kSigFileTypeNode;
    n->category = "Odd";
    n->sig = std::shared_ptr<Sig>(makeSig("Odd", "odd", "00", 0, 0).release());
    n->sig->headerLength = length;
    n->parent = odd.get();
    odd->addChild(std::move(n));
  }
  root.push_back(std::move(odd));
  writeFile(f.files.installed(), archiveSigRoot(root));
  SignatureDatabase db(f.files);
  db.loadSigData();
  ASSERT_EQ(db.sigRootArray().size(), 2u);
  EXPECT_TRUE(db.sigRootArray()[0]->children().empty());
  std::vector<const Sig*> sigs;
  for (const auto& c : db.sigRootArray()[1]->children()) sigs.push_back(c->sig.get());
  TempDir dir;
  writeFile(dir / "d.img", std::vector<uint8_t>(64 * 512, 0));
  DriveUnderSearch drive(dir / "d.img");
  SignatureSearch search(*drive.volume, sigs);
  EXPECT_TRUE(search.groups().empty());
  search.signatureSearchDisk();
  EXPECT_EQ(drive.volume->fileCount, 0u);

  // An archive whose file type is of a class the database does not know.
  auto bytes = archiveSigRoot(root);
  const std::string from = "SigNode", to = "SigNodX";
  auto it = std::search(bytes.begin(), bytes.end(), from.begin(), from.end());
  ASSERT_NE(it, bytes.end());
  std::copy(to.begin(), to.end(), it);
  writeFile(f.files.installed(), bytes);
  SignatureDatabase unknown(f.files);
  unknown.loadSigData();
  EXPECT_TRUE(unknown.sigRootArray().empty());
  EXPECT_FALSE(unknown.lastLoadError().empty());
}

TEST(CarvingDatabase, TextThatIsNotUtf8IsReadSoThatItWritesBack) {
  // An archive (found by fuzzing) whose strings hold bytes that are no UTF-8:
  // read as it was, it could be written but not read again.
  const auto bytes =
      test::readFile(std::filesystem::path(AMBREL_SOURCE_DIR) / "tests/fuzz/corpus/signature_db/category_not_utf8.bplist");
  std::string error;
  auto root = unarchiveSigRoot(bytes, error);
  ASSERT_TRUE(root) << error;
  auto again = unarchiveSigRoot(archiveSigRoot(*root), error);
  ASSERT_TRUE(again) << error;
  ASSERT_EQ(again->size(), root->size());
  size_t replaced = 0;
  for (size_t i = 0; i < root->size(); ++i) {
    const SigNode& a = *(*root)[i];
    const SigNode& b = *(*again)[i];
    EXPECT_EQ(a.category, b.category);
    auto mark = [&](const std::string& t) { replaced += t.find("\xEF\xBF\xBD") != std::string::npos; };
    mark(a.category);
    ASSERT_EQ(a.children().size(), b.children().size());
    for (size_t k = 0; k < a.children().size(); ++k) {
      if (!a.childAtIndex(k)->sig) continue;
      EXPECT_EQ(a.childAtIndex(k)->sig->software, b.childAtIndex(k)->sig->software);
      EXPECT_EQ(a.childAtIndex(k)->sig->extension, b.childAtIndex(k)->sig->extension);
      mark(a.childAtIndex(k)->category);
      mark(a.childAtIndex(k)->sig->category);
      mark(a.childAtIndex(k)->sig->software);
      mark(a.childAtIndex(k)->sig->extension);
    }
  }
  EXPECT_GT(replaced, 0u);
}

TEST(CarvingDatabase, HexParsingAndCharacterTests) {
  EXPECT_EQ(getHeaderFromString("FFD8FF"), 0xFFD8FFu);
  EXPECT_EQ(getHeaderFromString("1A"), 0x1Au);
  EXPECT_EQ(getHeaderFromString("ffd8f"), 0xFFD8u);  // a trailing odd character is ignored
  EXPECT_EQ(getHeaderFromString("0G"), 0x00u);       // other characters count as 0
  EXPECT_EQ(getHeaderFromString("0102030405060708"), 0x0102030405060708u);
  EXPECT_TRUE(stringIsHex(""));
  EXPECT_TRUE(stringIsHex("09afAF"));
  EXPECT_FALSE(stringIsHex("0x12"));
  EXPECT_FALSE(stringIsHex("12 "));
  EXPECT_TRUE(stringIsNumeric(""));
  EXPECT_TRUE(stringIsNumeric("0123"));
  for (const char* s : {"-1", " 5", "1.5", "+3", "1e3"}) EXPECT_FALSE(stringIsNumeric(s)) << s;
}

TEST(CarvingDatabase, AddDialogChecksInOrderWithTheirMessages) {
  Files f;
  SignatureDatabase db(f.files);
  db.loadSigData();
  const NewSigInput good{"Mine", "My Format", "myf", "4D5946", "0"};
  struct Case {
    NewSigInput in;
    std::string message;
  };
  auto with = [&](auto change) {
    NewSigInput in = good;
    change(in);
    return in;
  };
  const std::vector<Case> cases = {
      {with([](auto& i) { i = {}; }), "Category cannot be nil"},
      {with([](auto& i) { i.name.clear(); i.extension.clear(); }), "File Type Name cannot be nil"},
      {with([](auto& i) { i.extension.clear(); i.signature.clear(); }), "Extension cannot be nil"},
      {with([](auto& i) { i.signature.clear(); i.offset.clear(); }), "Signature cannot be nil"},
      {with([](auto& i) { i.offset.clear(); i.extension = ".x"; }), "Offset cannot be nil"},
      {with([](auto& i) { i.extension = ".jpg"; i.signature = "XYZ"; }),
       "Please remove dot \".\" from the beggining of the extension"},
      {with([](auto& i) { i.signature = "XYZ"; }), "Please enter correct signature: A-F, a-f, 0-9"},
      {with([](auto& i) { i.signature = "ABC"; i.offset = "x"; }), "Incorrect signature: enter even number of characters"},
      {with([](auto& i) { i.signature = "001122334455667788"; }), "Incorrect signature: enter only a maximum of 8 bytes"},
      {with([](auto& i) { i.offset = "-1"; }), "Please enter numeric value in offset"},
      {with([](auto& i) { i.offset = " 5"; }), "Please enter numeric value in offset"},
      {with([](auto& i) { i.offset = "1025"; }), "Offset cannot be more then 1024"},
      {with([](auto& i) { i.offset = "99999999999999999999999"; }), "Offset cannot be more then 1024"},
      {with([](auto& i) { i.category = "Images"; i.name = "JPEG"; }),
       "File Type \"JPEG\" under category \"Images\" already exists. Please enter different names"},
      {with([](auto& i) { i.signature = "FFD8FF"; }),
       "This signature/offset pair already exists in file type \"JPEG\" under category \"Images\"."},
      // The header length takes no part: 00FFD8FF is the same number.
      {with([](auto& i) { i.signature = "00FFD8FF"; }),
       "This signature/offset pair already exists in file type \"JPEG\" under category \"Images\"."},
  };
  const size_t before = db.sigRootArray().size();
  for (const auto& c : cases) {
    const auto alert = db.addNewSigOKClicked(c.in);
    ASSERT_TRUE(alert) << c.message;
    EXPECT_EQ(alert->title, "!Error");
    EXPECT_EQ(alert->message, c.message);
    EXPECT_EQ(alert->buttons, std::vector<std::string>{"OK"});
  }
  EXPECT_EQ(db.sigRootArray().size(), before);
  EXPECT_FALSE(std::filesystem::exists(f.files.userCopy)) << "nothing written by a refused add";

  // Accepted: 16 characters, offset 1024, a trailing point, a name that
  // exists in another category.
  EXPECT_FALSE(db.addNewSigOKClicked({"Mine", "JPEG", "jpg.", "0011223344556677", "1024"}));
  EXPECT_FALSE(db.addNewSigOKClicked({"Images", "Mine in images", "mii", "1A", "3"}));
  ASSERT_EQ(db.sigRootArray().size(), before + 1);
  const SigNode& mine = *db.sigRootArray().back();
  EXPECT_EQ(mine.fileType, kSigCategoryNode);
  EXPECT_EQ(mine.category, "Mine");
  ASSERT_EQ(mine.children().size(), 1u);
  const Sig& s = *mine.children()[0]->sig;
  EXPECT_EQ(s.header, 0x0011223344556677u);
  EXPECT_EQ(s.headerLength, 8);
  EXPECT_EQ(s.offset, 1024);
  EXPECT_FALSE(s.preInstalled);
  EXPECT_EQ(s.typeOfFile, 0u);
  EXPECT_EQ(s.category, "Mine");
  EXPECT_EQ(s.extension, "jpg.");
  EXPECT_EQ(mine.children()[0]->parent, &mine);
  // The user's copy now holds both; the installed file is untouched.
  SignatureDatabase again(f.files);
  again.loadSigData();
  EXPECT_EQ(again.sigRootArray().size(), before + 1);
  EXPECT_EQ(test::readFile(f.files.installed()), test::readFile(builtResourceDir() + "/Signature.dat"));
}

TEST(CarvingDatabase, MarksPersistAcrossARewriteAndRemovalRules) {
  Files f;
  SignatureDatabase db(f.files);
  db.loadSigData();
  SigNode* images = nullptr;
  for (auto& c : db.sigRootArray())
    if (c->category == "Images") images = c.get();
  ASSERT_TRUE(images);
  SigNode* jpeg = images->childAtIndex(0);
  CheckControllerSig(jpeg, 1).run();
  EXPECT_EQ(images->selected, 1) << "marking a file type marks its category";
  ASSERT_FALSE(db.addNewSigOKClicked({"Mine", "One", "one", "AA55", "0"}));
  ASSERT_FALSE(db.addNewSigOKClicked({"Mine", "Two", "two", "AA56", "0"}));

  SignatureDatabase reread(f.files);
  reread.loadSigData();
  SigNode* mine = nullptr;
  for (auto& c : reread.sigRootArray()) {
    if (c->category == "Images") {
      EXPECT_EQ(c->selected, 1);
      EXPECT_EQ(c->childAtIndex(0)->selected, 1);
      EXPECT_EQ(c->childAtIndex(1)->selected, 0);
    }
    if (c->category == "Mine") mine = c.get();
  }
  ASSERT_TRUE(mine);
  // Pre-installed: never removable; a user's category only once empty.
  EXPECT_FALSE(SignatureDatabase::canRemove(reread.sigRootArray()[0]->childAtIndex(0)));
  EXPECT_FALSE(SignatureDatabase::canRemove(mine));
  EXPECT_TRUE(SignatureDatabase::canRemove(mine->childAtIndex(0)));
  const size_t categories = reread.sigRootArray().size();
  EXPECT_TRUE(reread.removeFileType(reread.sigRootArray()[0]->childAtIndex(0)));
  EXPECT_EQ(reread.sigRootArray()[0]->children().size(), builtDatabase().root[0]->children().size());
  EXPECT_TRUE(reread.removeFileType(mine->childAtIndex(0)));
  EXPECT_TRUE(reread.removeFileType(mine->childAtIndex(0)));
  EXPECT_TRUE(mine->children().empty());
  EXPECT_TRUE(SignatureDatabase::canRemove(mine));
  EXPECT_TRUE(reread.removeFileType(mine));
  EXPECT_EQ(reread.sigRootArray().size(), categories - 1);
  SignatureDatabase last(f.files);
  last.loadSigData();
  EXPECT_EQ(last.sigRootArray().size(), categories - 1);

  // Unmarking the last marked file type unmarks its category.
  CheckControllerSig(last.sigRootArray()[1]->childAtIndex(0), 0).run();
  EXPECT_EQ(last.sigRootArray()[1]->selected, 0);
  last.selectAllSig();
  for (const auto& c : last.sigRootArray()) {
    EXPECT_EQ(c->selected, 1);
    for (const auto& ch : c->children()) EXPECT_EQ(ch->selected, 1);
  }
  EXPECT_EQ(last.sigRootArray()[1]->childrenSelected(), int32_t(last.sigRootArray()[1]->children().size()));
  last.deselectAllSig();
  EXPECT_TRUE(last.selectedFileTypes().empty());
}

TEST(CarvingDatabase, WrittenFilesAreKeyedArchivesPlistlibReads) {
  if (!haveTool("python3")) GTEST_SKIP() << "python3 is not installed";
  Files f;
  SignatureDatabase db(f.files);
  db.loadSigData();
  ASSERT_FALSE(db.addNewSigOKClicked({"Mine", "One", "one", "AA55", "12"}));
  std::string out;
  const std::string script =
      "import plistlib, sys\n"
      "d = plistlib.load(open(sys.argv[1], 'rb'))\n"
      "assert d['$archiver'] == 'NSKeyedArchiver' and d['$version'] == 100000\n"
      "objs = d['$objects']\n"
      "root = objs[d['$top']['root'].data]\n"
      "print(objs[root['$class'].data]['$classname'])\n"
      "cat = objs[root['NS.objects'][-1].data]\n"
      "print(objs[cat['$class'].data]['$classes'])\n"
      "print([k for k in cat if k != '$class'])\n"
      "child = objs[objs[cat['children'].data]['NS.objects'][0].data]\n"
      "sig = objs[child['sig'].data]\n"
      "print(objs[sig['$class'].data]['$classes'])\n"
      "print([k for k in sig if k != '$class'])\n"
      "print(objs[sig['software'].data], sig['header'], sig['offset'], sig['preInstalled'])\n";
  writeFile(f.dir / "read.py", std::vector<uint8_t>(script.begin(), script.end()));
  ASSERT_EQ(runCommand("python3 '" + (f.dir / "read.py").string() + "' '" + f.files.userCopy + "'", &out), 0);
  EXPECT_EQ(out,
            "NSMutableArray\n"
            "['SigNode', 'NSObject']\n"
            "['fileType', 'children', 'selected', 'category', 'sig']\n"
            "['Sig', 'NSObject']\n"
            "['preInstalled', 'skipFileSize', 'categoryID', 'category', 'typeOfFile', 'software', 'extension', "
            "'offset', 'headerLength', 'header', 'defaultSize', 'userSize', 'foundSize', 'skipSize']\n"
            "One 43605 12 False\n");
}

TEST(CarvingDatabase, SelectionAndMaximumSize) {
  Files f;
  SignatureDatabase db(f.files);
  db.loadSigData();
  EXPECT_EQ(db.sigSelNextClicked(1, false, "20", 0).outcome, SigSelection::Outcome::Nothing);
  SigSelection s = db.sigSelNextClicked(2, true, "20", 0);
  EXPECT_EQ(s.outcome, SigSelection::Outcome::AskNoSignatures);
  EXPECT_EQ(s.alert.title, "No file type Selected");
  EXPECT_EQ(s.alert.message, "Do you want to proceed recovering deleted files without signature search option enabled?");
  EXPECT_EQ(s.alert.buttons, (std::vector<std::string>{"OK", "Go Back"}));
  for (auto [type, journaled] : {std::pair{2, false}, std::pair{3, false}, std::pair{3, true}}) {
    s = db.sigSelNextClicked(type, journaled, "20", 0);
    EXPECT_EQ(s.outcome, SigSelection::Outcome::Refused);
    EXPECT_EQ(s.alert.message,
              "At least one file type should be selected to recover lost/ deleted files based on signature search.");
  }
  CheckControllerSig(db.sigRootArray()[1].get(), 1).run();
  struct Size {
    std::string text;
    int unit;
    const char* refusal;  // nullptr: accepted
  };
  for (const Size& c : std::vector<Size>{{"", 0, "Maximum size to recover cannot be nil"},
                                         {"2.5", 0, "Please enter numeric value in maximum file size field"},
                                         {"-1", 1, "Please enter numeric value in maximum file size field"},
                                         {"11", 1, "Maximum file size to recover can not be more than 10 GB"},
                                         {"10241", 0, "Maximum file size to recover can not be more than 10 GB"},
                                         {"99999999999999999999999", 0, "Maximum file size to recover can not be more than 10 GB"},
                                         {"10", 1, nullptr},
                                         {"10240", 0, nullptr},
                                         {"0", 0, nullptr}}) {
    s = db.sigSelNextClicked(3, false, c.text, c.unit);
    if (c.refusal) {
      EXPECT_EQ(s.outcome, SigSelection::Outcome::Refused) << c.text;
      EXPECT_EQ(s.alert.title, "!Error");
      EXPECT_EQ(s.alert.message, c.refusal);
    } else {
      EXPECT_EQ(s.outcome, SigSelection::Outcome::Proceed) << c.text;
      EXPECT_EQ(s.userSize, std::stoull(c.text) << (c.unit ? 30 : 20));
      EXPECT_EQ(s.rawSearchMode, 3);
      EXPECT_EQ(s.sigSelArray.size(), db.sigRootArray()[1]->children().size());
      for (SigNode* n : s.sigSelArray) EXPECT_EQ(n->sig->userSize, s.userSize);
    }
  }
  EXPECT_EQ(db.sigSelNextClicked(2, true, "1", 0).rawSearchMode, 1);
  EXPECT_EQ(db.sigSelNextClicked(2, false, "1", 0).rawSearchMode, 2);
}

}  // namespace
}  // namespace ambrel::test
