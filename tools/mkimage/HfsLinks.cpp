// Hard links, folder links and symbolic links written as a Mac writes them:
// a linked file's content moves to an "iNode<ID>" file of the private
// metadata folder and every name of it becomes an 'hlnk'/'hfs+' record
// naming that ID; a linked folder moves to "dir_<ID>" of the private
// directory folder, its names 'fdrp'/'MACS' records; a symbolic link is an
// 'slnk'/'rhap' file whose data fork is its target.
#include <map>

#include "VolumeImpl.h"

namespace ambrel::mkimage {

namespace {

const std::u16string kPrivateData = std::u16string(4, u'\0') + u"HFS+ Private Data";
const std::u16string kPrivateDirs = u".HFS+ Private Directory Data\r";
constexpr uint16_t kHasLinkChain = 0x0020;
constexpr uint16_t kInvisible = 0x4000;

std::u16string numbered(const char16_t* prefix, uint32_t n) {
  std::u16string s = prefix;
  for (char c : std::to_string(n)) s += static_cast<char16_t>(c);
  return s;
}

}  // namespace

int32_t VolumeBuilder::Impl::privateFolder(const std::u16string& name, int32_t& cache) {
  if (cache >= 0) return cache;
  Item f = newItem(name, true);
  f.finderFlags = kInvisible;
  cache = static_cast<int32_t>(addItem(std::move(f), 0));
  return cache;
}

void VolumeBuilder::Impl::makeLinks() {
  enum class Kind { Hard, Folder };
  struct Link {
    uint32_t item, target;
    Kind kind;
  };
  std::map<std::string, uint32_t> byPath;
  std::vector<std::string> paths(items.size());
  for (uint32_t i = 1; i < items.size(); ++i) byPath[pathOf(i, paths)] = i;

  std::vector<Link> links;
  for (uint32_t i = 1; i < items.size(); ++i) {
    const EntrySpec* e = items[i].spec;
    if (!e) continue;
    const int kinds = !e->hardLinkTo.empty() + !e->folderLinkTo.empty() + e->symlinkTo.has_value();
    if (kinds == 0) continue;
    // A deleted symbolic link is a record in old catalog nodes like any deleted file.
    if (kinds > 1 || items[i].folder || (items[i].deleted && !e->symlinkTo) || e->dataLength() || e->rsrcLength() ||
        e->compressed)
      throw BuildError("a link is one live entry (or a deleted symbolic link) with no forks of its own: " + e->name);
    Item& it = items[i];
    if (e->symlinkTo) {
      if (e->symlinkTo->empty()) throw BuildError("a symbolic link needs a target: " + e->name);
      std::memcpy(it.type, "slnk", 4);
      std::memcpy(it.creator, "rhap", 4);
      it.modeType = 0120000;
      if (!it.mode) it.mode = 0755;
      it.ownData.assign(e->symlinkTo->begin(), e->symlinkTo->end());
      it.dataSize = it.ownData.size();
      it.genData = false;
      continue;
    }
    const bool hard = !e->hardLinkTo.empty();
    const std::string& to = hard ? e->hardLinkTo : e->folderLinkTo;
    auto found = byPath.find(to);
    if (found == byPath.end()) throw BuildError("a link's target is not in the volume: " + to);
    const Item& target = items[found->second];
    const EntrySpec* ts = target.spec;
    if (target.deleted || target.folder != !hard || found->second == 0 ||
        (ts && (!ts->hardLinkTo.empty() || !ts->folderLinkTo.empty() || ts->symlinkTo)))
      throw BuildError(std::string(hard ? "a hard link needs a live file: " : "a folder link needs a live folder: ") + to);
    links.push_back({i, found->second, hard ? Kind::Hard : Kind::Folder});
  }
  if (links.empty()) return;

  int32_t dataFolder = -1, dirFolder = -1;
  auto makeLink = [&](uint32_t index, uint32_t target, Kind kind) {
    Item& it = items[index];
    const bool hard = kind == Kind::Hard;
    std::memcpy(it.type, hard ? "hlnk" : "fdrp", 4);
    std::memcpy(it.creator, hard ? "hfs+" : "MACS", 4);
    it.special = items[target].cnid;
    it.flags = kHasLinkChain;
    it.dataSize = it.rsrcSize = 0;
    it.genData = it.genRsrc = false;
    // The Mac dates links as their private folder.
    it.created = items[hard ? dataFolder : dirFolder].created;
  };
  // Each target moves once; the name it had becomes one more link.
  std::map<uint32_t, std::vector<uint32_t>> byTarget;
  std::map<uint32_t, Kind> kindOf;
  for (const Link& l : links) {
    byTarget[l.target].push_back(l.item);
    kindOf[l.target] = l.kind;
  }
  for (auto& [target, linkItems] : byTarget) {
    const Kind kind = kindOf[target];
    const int32_t priv = kind == Kind::Hard ? privateFolder(kPrivateData, dataFolder)
                                            : privateFolder(kPrivateDirs, dirFolder);
    const int32_t oldParent = items[target].parentIndex;
    const std::u16string oldName = items[target].name;
    items[oldParent].valence--;
    items[priv].valence++;
    Item& t = items[target];
    t.parentIndex = priv;
    t.parent = items[priv].cnid;
    t.name = numbered(kind == Kind::Hard ? u"iNode" : u"dir_", t.cnid);
    t.key = keyOf(t.name);
    if (kind == Kind::Hard) t.special = static_cast<uint32_t>(linkItems.size() + 1);
    Item stay = newItem(oldName, false);
    stay.spec = nullptr;
    const uint32_t stayIndex = addItem(std::move(stay), oldParent);
    makeLink(stayIndex, target, kind);
    for (uint32_t l : linkItems) makeLink(l, target, kind);
  }
}

}  // namespace ambrel::mkimage
