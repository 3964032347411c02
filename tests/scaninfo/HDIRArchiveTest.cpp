#include <gtest/gtest.h>

#include <fstream>

#include "scaninfo/HDIRArchive.h"
#include "scaninfo/KeyedArchive.h"
#include "support/TempDir.h"

namespace ambrel {
namespace {

std::unique_ptr<HDIR> node(const std::string& name, uint16_t type, uint32_t id) {
  auto d = std::make_unique<HDIR>();
  d->setFileName(name);
  d->fileType = type;
  d->fileID = id;
  d->parentID = 2;
  return d;
}

TEST(HDIRArchive, EntriesRoundTripWithTheirKeys) {
  auto root = node("Root", kHDIRFolder, 2);
  auto file = node("\xE5\x86\x99\xE7\x9C\x9F.jpg", kHDIRFile, 30);
  file->createDate = 0xF0000001u;  // above INT32_MAX: travels as a negative int32
  file->dataSize = 1u << 20;
  file->fileSize = (1u << 20) + 10;
  file->rscSize = 10;
  file->blockSize = 8;
  file->addDataExt({0x90000000u, 256});
  file->addRscExt({12, 1});
  file->setSelected(1);
  root->addChild(std::move(file));
  root->addChild(node("Empty", kHDIRFolder, 31));
  root->setChildrenCount(2);

  auto bytes = archiveHDIR(*root);
  ASSERT_TRUE(bytes);
  std::string err;
  auto back = unarchiveHDIR(*bytes, err);
  ASSERT_TRUE(back) << err;
  ASSERT_EQ(back->children().size(), 2u);
  const HDIR& f = *back->children()[0];
  EXPECT_EQ(f.fileName(), "\xE5\x86\x99\xE7\x9C\x9F.jpg");
  EXPECT_EQ(pathNameOf(f), "/Root");  // from its folder, as archived below
  EXPECT_EQ(f.createDate, 0xF0000001u);
  EXPECT_EQ(f.dataExt, (std::vector<Extent>{{0x90000000u, 256}}));
  EXPECT_EQ(f.rscExt, (std::vector<Extent>{{12, 1}}));
  EXPECT_EQ(f.selected(), 1);
  EXPECT_EQ(f.parent, back.get());
  EXPECT_EQ(back->childrenCount(), 2);
  EXPECT_EQ(back->childrenSelected(), 1);

  // As another reader sees it: the classes and every key.
  test::TempDir dir;
  test::writeFile(dir / "h.bplist", *bytes);
  std::string out;
  ASSERT_EQ(test::runCommand("python3 " + std::string(AMBREL_SOURCE_DIR) + "/tests/scaninfo/keyed_archive_reader.py describe " +
                                 (dir / "h.bplist").string(),
                             &out),
            0);
  EXPECT_NE(out.find(R"({"$classes":["HDIR","NSObject"],"blockSize":8,"children":null,"childrenCount":0,"createDate":-268435455,)"
                     R"("dataExt":[{"$classes":["Extent","NSObject"],"blockCount":256,"startBlock":-1879048192}],"dataSize":1048576,)"
                     R"("fileCount":0,"fileID":30,"fileName":"写真.jpg","fileSize":1048586,"fileType":2,"modDate":0,"parentID":2,)"
                     R"("pathName":"/Root","rscExt":[{"$classes":["Extent","NSObject"],"blockCount":1,"startBlock":12}],"rscSize":10,"selected":1})"),
            std::string::npos)
      << out;
  // Each class dictionary follows the first object of its class to be finished.
  EXPECT_NE(out.find(R"("classes":[["Extent","NSObject"],["NSMutableArray","NSArray","NSObject"],["HDIR","NSObject"]])"), std::string::npos) << out;
}

TEST(HDIRArchive, DepthAndSharingAreBounded) {
  auto root = node("r", kHDIRFolder, 2);
  HDIR* at = root.get();
  for (int i = 0; i < kMaxArchivedHDIRDepth + 1; ++i) at = at->addChild(node("d", kHDIRFolder, 100 + i));
  EXPECT_FALSE(archiveHDIR(*root));
  // Just within the limit it archives and reads back.
  root->setChildren({});
  at = root.get();
  for (int i = 0; i < kMaxArchivedHDIRDepth; ++i) at = at->addChild(node("d", kHDIRFolder, 100 + i));
  auto bytes = archiveHDIR(*root);
  ASSERT_TRUE(bytes);
  std::string err;
  EXPECT_TRUE(unarchiveHDIR(*bytes, err)) << err;

  // An entry listed as its own child twice over, 30 levels: refused, not expanded.
  test::TempDir dir;
  std::string objects = "['$null'";
  for (int i = 1; i <= 30; ++i)
    objects += ", {'fileName': UID(0), 'children': UID(" + std::to_string(31 + i) + "), '$class': UID(31)}";
  objects += ", {'$classname': 'HDIR', '$classes': ['HDIR', 'NSObject']}";
  for (int i = 1; i <= 30; ++i)
    objects += ", {'NS.objects': [UID(" + std::to_string(i + 1 > 30 ? 30 : i + 1) + "), UID(" +
               std::to_string(i + 1 > 30 ? 30 : i + 1) + ")], '$class': UID(62)}";
  objects += ", {'$classname': 'NSArray', '$classes': ['NSArray', 'NSObject']}]";
  std::ofstream(dir / "make.py") << "import plistlib\nfrom plistlib import UID\nopen('" << (dir / "bomb").string()
                                 << "','wb').write(plistlib.dumps({'$version': 100000, '$archiver': 'NSKeyedArchiver', "
                                    "'$top': {'root': UID(1)}, '$objects': "
                                 << objects << "}, fmt=plistlib.FMT_BINARY))\n";
  ASSERT_EQ(test::runCommand("python3 " + (dir / "make.py").string()), 0);
  auto bomb = test::readFile(dir / "bomb");
  EXPECT_FALSE(unarchiveHDIR(bomb, err));
  EXPECT_TRUE(err == "entries shared beyond the archive's size" || err == "entries nested too deeply") << err;
}

}  // namespace
}  // namespace ambrel
