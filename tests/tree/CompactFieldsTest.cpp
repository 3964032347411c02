// The compact holders of an entry's extents and name: what goes in comes
// out, across the switch from inline to heap storage and back.
#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tree/EntryName.h"
#include "tree/Extent.h"

namespace ambrel {
namespace {

std::vector<Extent> runs(uint32_t n) {
  std::vector<Extent> v;
  for (uint32_t i = 0; i < n; ++i) v.push_back({1000 + 7 * i, i + 1});
  return v;
}

TEST(ExtentList, HoldsWhatWasPushedWhetherInlineOrOnTheHeap) {
  for (uint32_t n : {0u, 1u, 2u, 3u, 9u, 100u}) {
    ExtentList list;
    for (const Extent& e : runs(n)) list.push_back(e);
    EXPECT_EQ(list.size(), n);
    EXPECT_EQ(list.empty(), n == 0);
    EXPECT_EQ(list.toVector(), runs(n));
    if (n) {
      EXPECT_EQ(list.front(), runs(n).front());
      EXPECT_EQ(list.back(), runs(n).back());
    }
  }
}

TEST(ExtentList, CopiesAndMovesAreIndependentAndLeaveTheSourceEmpty) {
  for (uint32_t n : {1u, 5u}) {
    ExtentList a = runs(n);
    ExtentList b = a;
    b.push_back({1, 1});
    EXPECT_EQ(a, runs(n));  // the copy owns its own storage
    ExtentList c = std::move(b);
    EXPECT_TRUE(b.empty());
    EXPECT_EQ(c.size(), n + 1);
    EXPECT_EQ(c.back(), (Extent{1, 1}));
    // Assignments over lists of the other kind of storage.
    ExtentList d = runs(7);
    d = a;
    EXPECT_EQ(d, runs(n));
    ExtentList e = runs(1);
    e = std::move(c);
    EXPECT_EQ(e.size(), n + 1);
    const ExtentList& same = e;
    e = same;  // assigned to itself, the list stays
    EXPECT_EQ(e.size(), n + 1);
    e = runs(0);
    EXPECT_TRUE(e.empty());
  }
}

TEST(ExtentList, ResizeAndClearAndComparison) {
  ExtentList list = runs(4);
  list.resize(2);
  EXPECT_EQ(list, (std::vector<Extent>{runs(4)[0], runs(4)[1]}));
  list.resize(3);
  EXPECT_EQ(list[2], Extent{});
  list.clear();
  EXPECT_TRUE(list.empty());
  list.push_back({5, 6});
  EXPECT_EQ(list, (std::vector<Extent>{{5, 6}}));
  EXPECT_FALSE(list == runs(1));
  EXPECT_FALSE(ExtentList(runs(2)) == ExtentList(runs(3)));
}

TEST(EntryName, KeepsNamesOfEveryLengthAndBytes) {
  for (size_t n : {size_t{0}, size_t{1}, size_t{22}, size_t{23}, size_t{24}, size_t{255}, size_t{1000}}) {
    std::string s;
    for (size_t i = 0; i < n; ++i) s += static_cast<char>(i % 251 + 1);
    if (n > 3) s[n / 2] = '\0';  // a NUL inside is a byte like any other
    EntryName name(s);
    EXPECT_EQ(name.view(), s) << n;
    EntryName copy = name;
    EntryName moved = std::move(copy);
    EXPECT_EQ(moved.view(), s) << n;
    EXPECT_TRUE(copy.view().empty());
  }
}

TEST(EntryName, SetFromItsOwnBytesAndAcrossStorageKinds) {
  EntryName name("a name longer than twenty-three bytes");
  name.set(name.view().substr(2, 4));  // heap to inline, from its own bytes
  EXPECT_EQ(name.view(), "name");
  name.set("a longer name again, past the inline bytes");
  name.set(name.view().substr(2));  // heap to heap, from its own bytes
  EXPECT_EQ(name.view(), "longer name again, past the inline bytes");
  EntryName other("short");
  other = name;
  EXPECT_EQ(other.view(), name.view());
  name = EntryName("x");
  EXPECT_EQ(name.view(), "x");
  EXPECT_EQ(other.view(), "longer name again, past the inline bytes");
}

}  // namespace
}  // namespace ambrel
