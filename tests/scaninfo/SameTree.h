#pragma once
// Comparing a tree read back from a scan info file with the one written.
#include <gtest/gtest.h>

#include <vector>

#include "tree/HDIR.h"

namespace ambrel::test {

// Every field the file keeps, compared over both trees in pre-order.
inline void expectSameTree(const HDIR& a, const HDIR& b) {
  std::vector<std::pair<const HDIR*, const HDIR*>> stack{{&a, &b}};
  size_t n = 0;
  while (!stack.empty()) {
    auto [x, y] = stack.back();
    stack.pop_back();
    ++n;
    SCOPED_TRACE(x->fileName());
    EXPECT_EQ(x->fileName().empty() ? std::string("Untitled") : x->fileName(), y->fileName());
    EXPECT_EQ(x->fileType, y->fileType);
    EXPECT_EQ(x->createDate, y->createDate);
    EXPECT_EQ(x->modDate, y->modDate);
    EXPECT_EQ(x->parentID, y->parentID);
    EXPECT_EQ(x->fileID, y->fileID);
    EXPECT_EQ(x->fileSize, y->fileSize);
    EXPECT_EQ(x->dataSize, y->dataSize);
    EXPECT_EQ(x->rscSize, y->rscSize);
    EXPECT_EQ(x->fileCount, y->fileCount);
    EXPECT_EQ(x->blockSize, y->blockSize);
    EXPECT_EQ(x->selected(), y->selected());
    EXPECT_EQ(x->childrenCount(), y->childrenCount());
    EXPECT_EQ(x->dataSize ? x->dataExt : std::vector<Extent>{}, y->dataExt);
    EXPECT_EQ(x->rscSize ? x->rscExt : std::vector<Extent>{}, y->rscExt);
    EXPECT_EQ(x->childrenSelected(), y->childrenSelected());
    ASSERT_EQ(x->children().size(), y->children().size());
    for (size_t i = 0; i < x->children().size(); ++i) {
      EXPECT_EQ(y->children()[i]->parent, y);
      stack.push_back({x->children()[i].get(), y->children()[i].get()});
    }
  }
  EXPECT_GT(n, 0u);
}

}  // namespace ambrel::test
