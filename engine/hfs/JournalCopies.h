#pragma once
// The catalog leaf copies of a journal, found batch by batch: each batch is
// read, its node ends found and each leaf copy digested. With two cores a
// second thread does every other batch, so that reading and digesting go on
// while the caller takes the records of the batch before; the caller still
// gets the batches in the journal's order, and every sector that the second
// thread could not read whole is read again on the caller's thread, where
// bad sectors and a lost drive are noted and reported as for any other read.
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

namespace ambrel {

class DMedia;

struct NodeDigest {
  uint64_t low = 0, high = 0;
  bool operator==(const NodeDigest&) const = default;
};

// What a leaf copy's records are made of: the descriptor and records up to
// the free space, and the offset table at the node's end. The free space
// between them is whatever was there before and may differ between two
// copies of the same node.
NodeDigest nodeDigest(const uint8_t* node, size_t bytes);

// The descriptor a journal copy must have to be read as a catalog leaf.
bool journalLeafDescriptor(const uint8_t* head);

// The digests of the copies already taken, open-addressed in one array: a
// busy journal meets this set once per node copy, and a node-based set's
// allocation per insert showed in the profile.
class DigestSet {
 public:
  explicit DigestSet(size_t expected);
  // True when `d` was not in the set yet.
  bool insert(NodeDigest d);

 private:
  static bool place(std::vector<NodeDigest>& slots, NodeDigest d);
  void grow();

  std::vector<NodeDigest> slots_;  // all zeros marks a free slot
  size_t count_ = 0;
  bool zeroSeen_ = false;
};

struct JournalBatch {
  struct Copy {
    size_t offset = 0;  // of the copy's first byte, from `sectors`
    NodeDigest digest;
  };
  uint64_t index = 0;
  uint64_t done = 0;   // journal sectors before the batch proper
  uint64_t carry = 0;  // sectors read before the batch proper, for copies that began there
  uint64_t count = 0;  // sectors of the batch proper
  bool whole = false;  // read in one piece (or salvaged on the caller's thread)
  uint8_t* sectors = nullptr;
  std::vector<Copy> copies;  // in the order their last sectors come
  std::vector<uint8_t> space;
};

class JournalCopyReader {
 public:
  // The journal's `total` sectors from drive sector `first`, nodes of
  // `nodeSectors`; `stop` ends the reading early.
  JournalCopyReader(DMedia& media, uint64_t first, uint64_t total, uint64_t nodeSectors,
                    const std::atomic<bool>& stop);
  ~JournalCopyReader();
  JournalCopyReader(const JournalCopyReader&) = delete;
  JournalCopyReader& operator=(const JournalCopyReader&) = delete;

  uint64_t batches() const { return batches_; }
  // Batch i, read and searched, with i counting up from 0; valid until the
  // next call.
  const JournalBatch& batch(uint64_t i);

 private:
  enum class Slot { Free, Filling, Ready, Lent };
  void prepare(JournalBatch& b, uint64_t index) const;
  void findCopies(JournalBatch& b) const;
  void readHere(JournalBatch& b);
  void secondThread();

  DMedia& media_;
  const uint64_t first_, total_, nodeSectors_, batches_;
  const std::atomic<bool>& stop_;
  JournalBatch own_;
  // The second thread's batches: the odd ones, two in hand at most.
  JournalBatch theirs_[2];
  Slot state_[2] = {Slot::Free, Slot::Free};
  std::mutex mutex_;
  std::condition_variable changed_;
  bool quit_ = false;
  bool secondDone_ = false;
  std::thread second_;
};

}  // namespace ambrel
