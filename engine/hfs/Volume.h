#pragma once
// One HFS+ or HFSX volume (or, for the raw signature search, a whole drive)
// while it is reconstructed: its header, where its B-trees and bitmap lie,
// node and block mapping, overflow extents, lost entries and clean-up.
#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "hfs/AttributesTree.h"
#include "hfs/CatalogRecords.h"
#include "hfs/FileVersions.h"
#include "media/DMedia.h"
#include "tree/HDIR.h"

namespace ambrel {

class Sig;

// What catNodeToSector / extNodeToSector answer for a node beyond the last
// extent (or with no node size known): no sector of any drive.
inline constexpr int64_t kInvalidSector = -1;

// Reserved catalog node IDs of the recovered tree.
inline constexpr uint32_t kRootParentID = 1;
inline constexpr uint32_t kRootFolderID = 2;
inline constexpr uint32_t kExtentsFileID = 3;
inline constexpr uint32_t kCatalogFileID = 4;
inline constexpr uint32_t kAllocationFileID = 6;
inline constexpr uint32_t kLostFilesID = 7;
inline constexpr uint32_t kLostFoldersID = 8;

class Volume : public DMedia {
 public:
  // A drive dictionary ("WhetherDiskDict": whole drive; "WhetherVolume":
  // volume device) or a volume dictionary (partition or header search).
  Volume(const PlistDict& dict, AppControllerInterface* appController);
  ~Volume() override;

  bool initializeVIB();
  void fillVIB();
  // True when the catalog's header node is sound. An unusable extents header
  // only clears extentsTreeUsable; the catalog's extents are filled either way.
  bool checkCatalogAndExtentsFile();
  void checkAllocationFile();
  void fillAllocationExt();
  void getCatalogExtFromVIB();

  int64_t catNodeToSector(uint32_t node) const;
  int64_t extNodeToSector(uint32_t node) const;
  // Overflow extents of a fork from the extents B-tree; empty with *found
  // false when the tree has no root, so callers can tell "no overflow
  // extents" from "no tree to ask".
  std::vector<Extent> extentsForID(uint32_t fileID, uint8_t fork, uint32_t startBlock, uint32_t totalBlocks,
                                   bool* found = nullptr);

  bool sectorIsInThisExtArray(const std::vector<Extent>& extents, uint64_t sector) const;
  bool sectorIsInCatalogFile(uint64_t sector) const;

  // Flags of free blocks among the 40 from `block` are cleared; none is set.
  void get40BlocksUsedStatusFromBlock(uint32_t block, uint8_t flags[40]);
  uint32_t getAllocationBlockForBlock(uint32_t block, uint32_t* returnedBitIndex) const;
  int64_t allocationOffsetToSector(uint64_t offset, uint32_t* skipOffset) const;
  bool getIfUnusedSector(uint64_t sector);
  bool getIfUnusedSectorForCatalogNode(uint64_t sector);
  // journalStart and journalSize from the journal info block, checked
  // against the volume; both 0 when there is no journal to search.
  void getJournalSizeAndStart();

  void setCPath() { cPath = path; }
  std::string description() const;

  // Lost and orphan entries.
  void processOrphanEntriesWithIncrement(bool increment, bool showVolNameOnly);
  void processAdvScanEntries();

  // Duplicate names and empty folders.
  std::string suggestedRepeatFileName(std::string_view name, HDIR* dir) const;
  void processDuplicateEntries();
  void removeZeroSizeFolders(HDIR* dir);

  void setStopTreeThread(bool value) { stopTreeThread.store(value); }

  // The tree scan: the body of the scan thread. mode is "Normal Scan" or
  // "Advanced Scan"; reports go to the controller.
  void startMakingTree(AppControllerInterface* controller, const std::string& mode);
  bool makeTree();
  bool readFilesAndFolders();
  static bool verifyLeafNodeDesc(const BTNodeDescriptor_& desc);
  // Bounded: refuses (false) a name length over 255, leaving the name unswapped.
  static bool convertHPlusCatalogKey(HFSPlusCatalogKey_* key);

  // Deleted files from the journal's old catalog nodes. scanForDeletedFiles
  // is the scan thread's body for a volume (the signature search afterwards
  // when `signatures`), scanForDeletedFilesDisk for a whole drive.
  void scanForDeletedFiles(AppControllerInterface* controller, bool deleted, bool signatures,
                           const std::vector<const Sig*>& sigs);
  void scanForDeletedFilesDisk(AppControllerInterface* controller, const std::vector<const Sig*>& sigs);
  // Steps of the volume scan before the signature search: a new root, the
  // header, the journal searched, orphans placed, empty folders removed.
  void findDeletedFilesInJournal();
  void searchCatFragsForDeletedFiles();
  // A new root and empty bookkeeping; the volume's geometry is kept.
  void resetTreeForDeletedScan();
  // Node copies that run past the journal's end and go on after its header.
  void searchWrappedNodeCopies();
  // One node of catNodeSize sectors from `sector`; timeRemaining is the text
  // sent with the counters after it.
  void processCatFragForDeletedFiles(uint64_t sector, const std::string& timeRemaining);

  // Catalog node searches.
  void enumerateLevel2IndexNodes();
  void searchForLevel2IndexNodes();
  void searchForLeafNodes();
  bool makeAdvTree();
  void searchCatFrags();
  // The catalog's node size from the leaf ends inside catalogExt, for a
  // catalog whose header node is gone; false when none is found.
  bool inferCatalogNodeSize();
  // The node size most sound leaf copies in the journal agree with; 0 when none.
  void inferNodeSizeFromJournal();
  void processCatFrags();
  // With no volume header left: the block size the file records of the nodes
  // found agree with (blockSizeSource FileRecords), else 4 KiB (Assumed).
  void inferBlockSizeFromRecords();
  void addToOrphanEntryArray(const HDIR& entry);
  void addToAdvScanFolderArray(const HDIR& entry);
  void addToAdvScanFileArray(const HDIR& entry);

  void startPreventingSleep();
  void stopPreventingSleep();

  // The attributes B-tree, found from the volume header on first need: its
  // extents (overflow ones too) and header node. False when the volume has
  // none or its header node is not sound.
  bool loadAttributesTree();
  using SectorReader = std::function<bool(uint64_t sector, int32_t count, void* buffer)>;
  // A reader of that tree through `read` (the scan's, the saver's or the
  // preview's sectors), one per thread; null when there is no tree.
  std::shared_ptr<AttributesTree> attributesTree(SectorReader read);
  // An attribute's value: inline bytes, or a fork-data value read through its
  // extents (at most kMaxAttributeValueSize bytes). Empty when absent or unreadable.
  std::vector<uint8_t> attributeValue(AttributesTree& tree, uint32_t fileID, std::string_view name,
                                      const SectorReader& read);
  static constexpr uint64_t kMaxAttributeValueSize = 1u << 20;
  // Lists a file marked compressed with its uncompressed size from its
  // compression attribute; false (the entry as stored) when there is no
  // usable attribute.
  bool applyCompression(HDIR& entry, const HFSPlusCatalogFile_& file);

  uint64_t startSector = 0;
  std::string volumeName;
  std::string rootName;
  std::string scanMode;
  std::string lostFoldersPath;
  std::string lostFilesPath;
  std::string lostFileName;
  std::string deletedFilesPath;
  std::string deletedFileName;
  std::unique_ptr<BTreeTableClass> btree;
  BTreeTableClassUInt32 btreeFirstFileBlock;
  uint32_t entryCount = 0;
  uint32_t folderCount = 0;
  uint32_t fileCount = 0;
  uint64_t dataSize = 0;
  uint64_t journalStart = 0;
  uint64_t journalSize = 0;
  bool journalHeaderFound = false;
  bool journalHeaderLittleEndian = false;
  uint32_t journalHeaderSize = 0;  // where the circular buffer begins; 0 when not known
  // Node copies that the journal search accepted, for its report.
  uint64_t journalNodesFound = 0;
  std::atomic<bool> stopTreeThread{false};
  std::unique_ptr<HDIR> dirRoot;
  HDIR* dirLostFiles = nullptr;    // inside dirRoot's tree
  HDIR* dirLostFolders = nullptr;  // inside dirRoot's tree
  uint32_t leafRecords = 0;
  int32_t catTreeDepth = 0;
  std::vector<Extent> allocationExt;
  HDIR::ChildArray orphanEntryArray;
  uint32_t maxFileID = 0;
  int32_t volumeScanType = 0;
  std::vector<uint64_t> CatNodeArray;
  HDIR::ChildArray advScanFolderArray;
  HDIR::ChildArray advScanFileArray;
  BTreeTableClass* btreeAdvScan = nullptr;  // btree itself unless a scan gives it its own
  uint64_t totalBlocks = 0;
  bool scanInfoSaved = false;
  uint64_t vibAtSector = 0;
  bool previewWarningShown = false;
  bool isJournaled = false;
  bool openedScanInfo = false;
  std::vector<uint32_t> leafNodePointerArray;
  std::vector<uint32_t> leafNodePointerTotalArray;
  bool advScanEntriesCanBePutIntoOrphanEntryArray = false;
  std::vector<Extent> catalogExtAsPerVIB;
  bool level2IndexNodeHasProblems = false;
  int32_t treeScanMode = 0;
  float startPos = 0;
  float endPos = 0;
  bool updateStatus = true;
  bool isUSBDevice = false;
  bool lookForRtfAttachments = false;
  // leafNodePointerArray was built from the index nodes: only then does an
  // empty array mean they pointed nowhere and the leaves must be searched for.
  bool leafNodePointerArrayMade_ = false;
  std::vector<Extent> attributesExt;
  std::optional<AttributesTree::Header> attributesHeader;
  bool attributesLoaded = false;
  // Where blockSize came from; files found under an assumed one are flagged.
  enum class BlockSizeSource { Header, FileRecords, Assumed };
  BlockSizeSource blockSizeSource = BlockSizeSource::Header;
  bool extentsTreeUsable = false;   // its header node was sound
  bool catalogHeaderUsable = false;
  // Files listed with a fork whose overflow extents could not be read.
  std::vector<uint32_t> missingExtentFileIDs;
  static constexpr size_t kMaxListedMissingExtents = 100000;
  // Catalog nodes found inside live files and not read: another volume's.
  uint64_t foreignNodesSkipped = 0;
  uint32_t compressedFiles = 0;       // listed with their uncompressed content
  uint32_t compressedUnreadable = 0;  // marked compressed without a usable attribute: listed as stored
  // Links met: file hard links given their file's content, folder links,
  // symbolic links; and links whose file or folder could not be found.
  uint32_t fileLinks = 0, folderLinks = 0, symlinks = 0, linksUnresolved = 0;
  // Times the catalog's leaf chain was left for the nodes collected
  // elsewhere (a node unreadable, not a leaf, or leading back), and the
  // first sectors of chain nodes that were read but were no leaf.
  uint32_t chainBridges = 0;
  std::vector<uint64_t> damagedNodeSectors;
  uint64_t damagedNodes = 0;
  static constexpr size_t kMaxListedDamagedNodes = 1000;
  void noteDamagedNode(int64_t sector) {
    ++damagedNodes;
    if (damagedNodeSectors.size() < kMaxListedDamagedNodes) damagedNodeSectors.push_back(static_cast<uint64_t>(sector));
  }
  // Marks a file record that is a link (hard, folder or symbolic).
  static void noteLink(HDIR& entry, const HFSPlusCatalogFile_& file);
  // Gives file hard links their file's forks and folder links their folder's
  // size, once the tree is whole.
  void resolveLinks();

 protected:
  // A drive found gone ends the scan at once.
  void onDriveGone() override { stopTreeThread.store(true); }

 private:
  // Reads sector as a master directory block into mdb; false on a read error.
  bool readMDB(uint64_t sector);
  bool readVIB(uint64_t sector);
  bool embeddedVolume(uint64_t volumeStart);
  void report(ProgressReport r);
  ProgressReport counters() const;
  // Bitmap block `index` (in bitmap-file blocks) read into buf; false when
  // the index lies beyond allocationExt or the read fails.
  bool readBitmapBlock(uint64_t index, std::vector<uint8_t>& buf);
  void subtractChildrenUp(HDIR* from, int32_t n);
  void addChildrenUp(HDIR* from, int32_t n, uint64_t size, uint32_t files);
  HDIR* makeLostFolderFor(uint32_t missingID);

  // Tree scan helpers.
  std::string driveText(const char* format) const;  // format with volume name, model, serial, revision
  void makeRoot();
  void processLeafRecord(const std::vector<uint8_t>& node, uint32_t numRecords, uint32_t index, bool tolerant);
  // The extents of one fork: its record's own up to the first empty one, then,
  // when asked, the overflow file's. Wrong when they cannot be this fork's.
  enum class ForkExtents { Complete, Incomplete, Wrong };
  ForkExtents collectForkExtents(const HFSPlusForkData_& fork, uint32_t fileID, uint8_t forkType,
                                 ExtentList& out, bool lookUpOverflow);
  void noteMissingExtents(HDIR& entry);
  // anySize: forks of 4 GiB and more pass too (they are not listed, but their
  // blocks are known).
  bool plausibleForks(const HFSPlusCatalogFile_& f, bool anySize = false) const;
  void reportEntryProgress();
  bool readCatalogNode(uint32_t number, std::vector<uint8_t>& node);
  uint64_t catalogNodeCount() const;
  void forEachCatalogFileNode(const std::function<bool(uint64_t sector, uint64_t number)>& visit);
  void collectLevel2Chain(uint32_t number, std::vector<uint8_t>& node);
  // The last sector of a leaf-looking node, with the node sizes (bit k: 2^k
  // sectors) at which a sound leaf ends there.
  struct LeafEnd {
    uint64_t sector;
    uint8_t sizes;
  };
  // Every leaf end among sectors [from, to); only knownNodeSectors is tried
  // when it is set. perChunk runs before each 63-sector chunk.
  void scanLeafEnds(uint64_t from, uint64_t to, int32_t knownNodeSectors, std::vector<LeafEnd>& ends,
                    const std::function<void()>& perChunk);
  // Deleted-files scan helpers.
  void processDeletedNode(const uint8_t* node, size_t bytes, const std::string& timeRemaining);
  RecordCheck processDeletedRecord(const uint8_t* node, size_t bytes, uint32_t numRecords, uint32_t index);
  void collectLiveFiles();
  // Hard links met in the journal hold no content of their own: the live
  // iNode file they name, else its record found in the journal, gives it.
  void giveDeletedLinksTheirContent();
  void flagReusedDeletedFiles();
  // Records named only as deleted while open, placed after the search if no
  // copy under their real name turned up.
  void placeOpenDeletedLeft();
  void placeDeletedFolder(uint32_t parentID, const std::string& name, const HFSPlusCatalogFolder_& folder);
  RecordCheck placeDeletedFile(uint32_t parentID, const std::string& name, const HFSPlusCatalogFile_& file);
  struct OpenDeleted {
    uint32_t parentID = 0;
    std::string name;
    HFSPlusCatalogFolder_ folder{};  // recordType set for a folder
    HFSPlusCatalogFile_ file{};
  };
  std::map<uint32_t, OpenDeleted> openDeleted_;
  uint32_t privateDataFolderID_ = 0;  // 0 while the live catalog has not named it
  // The live catalog's "iNode…" files and the folder holding each, by ID.
  struct LiveInode {
    uint32_t parentID = 0;
    HFSPlusCatalogFile_ file{};
  };
  std::unordered_map<uint32_t, LiveInode> liveInodes_;
  std::unordered_set<uint32_t> deletedScanIDs_;  // records placed or waiting, by catalog node ID
  std::vector<HDIR*> deletedScanFiles_;           // files made by the journal search, while it runs
  RecordCheck processFragmentRecord(const std::vector<uint8_t>& node, uint32_t numRecords, uint32_t index, bool live);

  // One file as the scans met it: where its forks lie. Same ID, same blocks:
  // the same file, listed once.
  FileVersions filesMet_;
  std::unordered_set<uint32_t> foldersMet_;
  struct FolderThread {
    uint32_t parentID = 0;
    std::string name;
    bool live = false;
  };
  std::unordered_map<uint32_t, FolderThread> folderThreads_;
  // True when a file with this ID and these extents was met already; else
  // it is noted now.
  // (An incomplete one matches a version met whole that it begins.)
  bool fileMetBefore(const HDIR& e, bool incomplete = false);
  bool otherVersionMet(const HDIR& e) const;
  void noteFolderThread(uint32_t folderID, uint32_t parentID, std::string name, bool live);
  bool blocksInUse(std::span<const Extent> extents);
  // Old versions and deleted files whose blocks now hold something else.
  void flagReusedBlocks();
  // Blocks of the live catalog's files, the journal's aside: a catalog node
  // found inside them belongs to a volume kept in that file (a disk image),
  // whose block numbers are not this volume's.
  struct BlockRun {
    uint32_t start, last;  // the last block, not past it: 8 bytes a run
  };
  std::vector<BlockRun> liveFileRuns_;
  bool liveFileRunsSorted_ = false;
  void noteLiveFileBlocks(uint32_t parentID, const std::string& name, std::span<const Extent> data,
                          std::span<const Extent> rsrc);
  // A live file too large to be listed still has its blocks noted.
  void noteUnlistedLiveFile(uint32_t parentID, const std::string& name, const HFSPlusCatalogFile_& file);
  bool insideLiveFile(uint64_t sector, uint64_t sectors);
  // The folders that the entries of `waiting` look for and the tree lacks:
  // an old copy's record of the folder (when fromAdvScanFolders), else one
  // rebuilt from its thread record, with their own missing parents in turn;
  // appended to `into`, counted when `count`.
  void provideMissingParents(const std::vector<HDIR::ChildArray*>& waiting, HDIR::ChildArray& into, bool count,
                             bool fromAdvScanFolders);

  // Where the node whose records are being read was found.
  EntryOrigin fragmentOrigin_ = EntryOrigin::Catalog;
  bool inJournal(uint64_t sector) const;
  std::shared_ptr<AttributesTree> scanAttributes_;
  std::chrono::steady_clock::time_point scanStart_{};
  uint64_t scanRecordsSeen_ = 0;
};

}  // namespace ambrel
