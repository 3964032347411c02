// The room a save asks of its destination: what it will write, rounded to
// the destination's blocks, and nothing a filter hides.
#include <gtest/gtest.h>

#include <memory>

#include "hfs/Volume.h"
#include "output/Saver.h"
#include "tree/EntryFilter.h"

using namespace ambrel;

TEST(SpaceCheck, CountsMarkedFilesInWholeBlocksAndNothingTheFilterHides) {
  HDIR root;
  root.fileType = kHDIRFolder;
  root.fileID = kRootFolderID;
  root.setFileName("Root");
  root.setSelected(1);
  uint32_t id = 16;
  auto add = [&](const char* name, uint64_t size, int selected) {
    auto e = std::make_unique<HDIR>();
    e->fileType = kHDIRFile;
    e->fileID = id++;
    e->fileSize = e->dataSize = size;
    e->setFileName(name);
    e->parent = &root;
    e->setSelected(selected);
    root.addChild(std::move(e));
  };
  add("small.txt", 100, 1);
  add("big.mov", 10000000, 1);
  add("unmarked.mov", 50000000, 0);
  // The root's folder, one block for the small file, 2442 for the big one.
  EXPECT_EQ(bytesToWrite(root, 4096), 4096u * (1 + 1 + 2442));
  EntryFilter small;
  small.maxSize = 1000;
  const FilteredTree filtered(root, small);
  EXPECT_EQ(bytesToWrite(root, 4096, &filtered), 4096u * 2);
}
