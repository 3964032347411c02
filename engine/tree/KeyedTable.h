#pragma once
// Insert-only B-tree of order 5 (at most 4 keys and 5 branches per node), the
// one algorithm behind the three keyed tables. The split rule and counters are
// kept exactly, so the shapes come out as the scans expect:
//  - numNodes counts nodes created, numItems counts calls of insert (also those
//    that met a key already present and inserted nothing);
//  - a duplicate key is never inserted; the first item stays.
// The table owns its items (stable addresses for its life); payloads are
// non-owning pointers.
#include <array>
#include <cstdint>
#include <deque>
#include <memory>

namespace ambrel {

template <class Traits>
class KeyedTable {
 public:
  using Key = typename Traits::Key;
  using Item = typename Traits::Item;

  struct Node {
    int32_t count = 0;
    std::array<Item*, 4> key{};
    std::array<Node*, 5> branch{};
  };

  KeyedTable() = default;
  KeyedTable(const KeyedTable&) = delete;
  KeyedTable& operator=(const KeyedTable&) = delete;

  bool empty() const { return root_ == nullptr; }
  const Node* root() const { return root_; }
  int32_t numNodes() const { return numNodes_; }
  int32_t numItems() const { return numItems_; }

  // Always true. The item is built from the key and payload; if the key is
  // present it is dropped (after the traits' duplicate hook has run).
  bool insert(Key key, typename Traits::Payload payload) {
    Item& item = items_.emplace_back();
    item.keyField = key;
    Traits::setPayload(item, payload);
    Item* median = nullptr;
    Node* newRight = nullptr;
    if (pushDown(&item, root_, median, newRight)) {
      Node* node = newNode();
      node->count = 1;
      node->key[0] = median;
      node->branch[0] = root_;
      node->branch[1] = newRight;
      root_ = node;
    }
    if (!inserted_) items_.pop_back();
    ++numItems_;
    return true;
  }

  // The item with that key, or nullptr. The traits may count the look-up.
  Item* retrieveKeyField(Key key) {
    Node* node = root_;
    while (node) {
      int location;
      if (searchNode(node, key, location)) {
        Item* found = node->key[location];
        Traits::onRetrieve(*found);
        return found;
      }
      node = node->branch[location + 1];
    }
    return nullptr;
  }

  // Empties the table; numNodes and numItems keep counting from where they were.
  bool clear() {
    root_ = nullptr;
    nodes_.clear();
    items_.clear();
    return true;
  }

 private:
  // Location of the largest key not greater than the target (-1 if none);
  // found when that key equals the target.
  static bool searchNode(const Node* node, Key target, int& location) {
    if (Traits::less(target, node->key[0]->keyField)) {
      location = -1;
      return false;
    }
    location = node->count - 1;
    while (Traits::less(target, node->key[location]->keyField) && location >= 1) --location;
    return node->key[location]->keyField == target;
  }

  // Returns moveUp; on moveUp, median and newRight are what the parent must take.
  bool pushDown(Item* item, Node* subtree, Item*& median, Node*& newRight) {
    if (!subtree) {
      median = item;
      newRight = nullptr;
      inserted_ = true;
      return true;
    }
    int location;
    if (searchNode(subtree, item->keyField, location)) {
      Traits::onDuplicate(*subtree->key[location], *item);
      inserted_ = false;
      return false;
    }
    if (!pushDown(item, subtree->branch[location + 1], median, newRight)) return false;
    if (subtree->count > 3) {
      split(median, newRight, subtree, location, median, newRight);
      return true;
    }
    addItem(median, newRight, subtree, location + 1);
    return false;
  }

  static void addItem(Item* item, Node* right, Node* node, int position) {
    for (int i = node->count; i > position; --i) {
      node->key[i] = node->key[i - 1];
      node->branch[i + 1] = node->branch[i];
    }
    node->key[position] = item;
    node->branch[position + 1] = right;
    ++node->count;
  }

  void split(Item* item, Node* right, Node* full, int location, Item*& median, Node*& newRight) {
    Node* fresh = newNode();
    const int m = location < 2 ? 2 : 3;
    for (int i = m; i < 4; ++i) {
      fresh->key[i - m] = full->key[i];
      fresh->branch[i - m + 1] = full->branch[i + 1];
      full->key[i] = nullptr;
      full->branch[i + 1] = nullptr;
    }
    fresh->count = 4 - m;
    full->count = m;
    if (location >= 2) addItem(item, right, fresh, location - m + 1);
    else addItem(item, right, full, location + 1);
    median = full->key[full->count - 1];
    fresh->branch[0] = full->branch[full->count];
    full->key[full->count - 1] = nullptr;
    full->branch[full->count] = nullptr;
    --full->count;
    newRight = fresh;
  }

  Node* newNode() {
    ++numNodes_;
    return &nodes_.emplace_back();
  }

  Node* root_ = nullptr;
  int32_t numNodes_ = 0;
  int32_t numItems_ = 0;
  bool inserted_ = false;
  std::deque<Node> nodes_;
  std::deque<Item> items_;
};

class HDIR;

struct CatalogTableTraits {
  using Key = uint32_t;
  using Payload = HDIR*;
  struct Item {
    uint32_t keyField = 0;
    HDIR* dir = nullptr;  // not owned
  };
  static void setPayload(Item& item, HDIR* dir) { item.dir = dir; }
  static bool less(uint32_t a, uint32_t b) { return a < b; }
  static void onDuplicate(Item&, Item&) {}
  static void onRetrieve(Item&) {}
};

struct UInt32TableTraits {
  using Key = uint32_t;
  using Payload = uint32_t;  // the initial retrieve count
  struct Item {
    uint32_t keyField = 0;
    uint32_t retrieveCount = 0;
  };
  static void setPayload(Item& item, uint32_t count) { item.retrieveCount = count; }
  static bool less(uint32_t a, uint32_t b) { return a < b; }
  static void onDuplicate(Item&, Item&) {}
  static void onRetrieve(Item& item) { ++item.retrieveCount; }
};

// Signature headers: a second signature with a header already present merges
// its extensions into the first (SigType::addToExtraExts) and is not inserted.
template <class SigType>
struct SigTableTraits {
  using Key = uint64_t;
  using Payload = SigType*;
  struct Item {
    uint64_t keyField = 0;
    SigType* sig = nullptr;  // not owned
  };
  static void setPayload(Item& item, SigType* sig) { item.sig = sig; }
  static bool less(uint64_t a, uint64_t b) { return a < b; }
  static void onDuplicate(Item& existing, Item& incoming) {
    if (incoming.sig && existing.sig) existing.sig->addToExtraExts(incoming.sig);
  }
  static void onRetrieve(Item&) {}
};

using BTreeTableClass = KeyedTable<CatalogTableTraits>;
using BTreeTableClassUInt32 = KeyedTable<UInt32TableTraits>;
template <class SigType>
using BTreeTableClassSigT = KeyedTable<SigTableTraits<SigType>>;

}  // namespace ambrel
