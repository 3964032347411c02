#pragma once
// File-type signatures and the two-level tree of categories and file types
// that the signature database holds.
//
// A Sig is one file type: where its first bytes stand in a block, which
// validator checks a hit, and what the last validator run established. A
// SigNode is a category (fileType 1, with children) or a file type (2, with a
// Sig). The archived forms live in scaninfo/ArchivedClasses.h; these classes
// copy their fields in and out of them.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "scaninfo/ArchivedClasses.h"
#include "tree/KeyedTable.h"

namespace ambrel {

inline constexpr uint16_t kSigCategoryNode = 1;
inline constexpr uint16_t kSigFileTypeNode = 2;

class Sig {
 public:
  Sig() = default;
  Sig(const Sig&) = delete;
  Sig& operator=(const Sig&) = delete;

  bool preInstalled = false;
  uint8_t categoryID = 0;
  std::string category;
  uint32_t typeOfFile = 0;  // selects the validator
  std::string software;     // display name
  std::string extension;    // without the dot
  uint16_t offset = 0;      // of the signature bytes within a block
  uint8_t headerLength = 0; // 1 to 8
  uint64_t header = 0;      // the signature bytes, first byte most significant, right-aligned
  uint32_t defaultSize = 0;
  uint64_t userSize = 0;    // size of a carved file whose length no validator established
  uint64_t foundSize = 0;   // what the last validator run established; 0: nothing
  uint32_t skipSize = 0;    // blocks to jump over after a carved file, when skipFileSize
  bool skipFileSize = false;

  // Records with the same offset, length and header, tried when this one's
  // validator refuses. Filled only while the search tables are built.
  const std::vector<std::unique_ptr<Sig>>& extraExts() const { return extraExts_; }
  void addToExtraExts(const Sig* sig);

  // Every field but extraExts, which starts empty.
  std::unique_ptr<Sig> mutableCopy() const;

  SigArchive toArchive() const;
  static std::unique_ptr<Sig> fromArchive(const SigArchive& archive);

 private:
  std::vector<std::unique_ptr<Sig>> extraExts_;
};

using BTreeTableClassSig = BTreeTableClassSigT<Sig>;

class SigNode {
 public:
  using ChildArray = std::vector<std::unique_ptr<SigNode>>;

  SigNode() = default;
  SigNode(const SigNode&) = delete;
  SigNode& operator=(const SigNode&) = delete;

  uint16_t fileType = 0;  // 1 category, 2 file type
  uint8_t selected = 0;
  std::string category;
  std::shared_ptr<Sig> sig;  // retained; nil on a category node
  SigNode* parent = nullptr; // not owned, not archived

  const ChildArray& children() const { return children_; }
  // Whether the array exists at all (a category made by addChild has one).
  bool hasChildArray() const { return hasChildArray_; }
  // Appends the node (parent is the caller's to set, as the scans do).
  SigNode* addChild(std::unique_ptr<SigNode> child);
  std::unique_ptr<SigNode> removeChildAtIndex(size_t index);
  SigNode* childAtIndex(size_t index) const { return children_[index].get(); }

  // All descendants, recursively.
  int32_t childrenCount() const;
  // Direct children whose selected is 1. A marked child's own descendants
  // are not counted as marked (only a malformed database has a third level).
  int32_t childrenSelected() const;

  // A deep copy: children copied, the Sig copied, parent pointers of the copy
  // pointing into the copy.
  std::unique_ptr<SigNode> mutableCopy() const;

  SigNodeArchive toArchive() const;
  // Children get their parent set.
  static std::unique_ptr<SigNode> fromArchive(const SigNodeArchive& archive);

 private:
  ChildArray children_;
  bool hasChildArray_ = false;
};

// One mark (flag 1) or unmark (flag 0) applied to a node of the signature
// tree, keeping ancestors and descendants consistent.
class CheckControllerSig {
 public:
  CheckControllerSig(SigNode* sigNode, int8_t flag) : sigNode_(sigNode), flag_(flag) {}
  void run() { setSelected(); }
  void setSelected();
  static void markAllChildrenSigArray(const SigNode::ChildArray& array, uint8_t value);

 private:
  SigNode* sigNode_;
  int8_t flag_;
};

// Hex text to a header: pairs from the front, the first most significant,
// right-aligned; characters other than hex digits count as 0 and a trailing
// odd character is ignored.
uint64_t getHeaderFromString(const std::string& text);
bool stringIsHex(const std::string& text);
bool stringIsNumeric(const std::string& text);

}  // namespace ambrel
