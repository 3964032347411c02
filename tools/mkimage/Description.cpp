// The JSON description format (see README.md) and the JSON layout report.
#include <cstring>
#include <ctime>
#include <iomanip>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "Internal.h"

namespace ambrel::mkimage {
namespace {

using nlohmann::json;

uint64_t sizeOf(const json& v, const char* what) {
  if (v.is_number_unsigned() || v.is_number_integer()) {
    if (v.get<int64_t>() < 0) throw BuildError(std::string(what) + " must not be negative");
    return v.get<uint64_t>();
  }
  if (!v.is_string()) throw BuildError(std::string(what) + " must be a number or a size such as \"4M\"");
  std::string s = v.get<std::string>();
  size_t pos = 0;
  uint64_t n = 0;
  try {
    n = std::stoull(s, &pos);
  } catch (...) {
    throw BuildError(std::string("bad size for ") + what + ": " + s);
  }
  std::string unit = s.substr(pos);
  uint64_t mul = 1;
  if (unit == "K" || unit == "KiB") mul = 1ULL << 10;
  else if (unit == "M" || unit == "MiB") mul = 1ULL << 20;
  else if (unit == "G" || unit == "GiB") mul = 1ULL << 30;
  else if (!unit.empty()) throw BuildError(std::string("bad size unit for ") + what + ": " + s);
  return n * mul;
}

HfsDate dateOf(const json& v) {
  if (v.is_number()) return hfsDateFromUnix(v.get<int64_t>());
  std::tm tm{};
  std::istringstream in(v.get<std::string>());
  in >> std::get_time(&tm, "%Y-%m-%dT%H:%M:%S");
  if (in.fail()) throw BuildError("dates are \"YYYY-MM-DDTHH:MM:SSZ\" or Unix seconds");
  return hfsDateFromUnix(static_cast<int64_t>(::timegm(&tm)));
}

std::vector<uint8_t> readAll(const std::filesystem::path& p) {
  std::ifstream in(p, std::ios::binary);
  if (!in) throw BuildError("cannot read " + p.string());
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::optional<std::vector<uint8_t>> bytesOf(const json& j, const char* textKey, const char* fileKey,
                                            const std::filesystem::path& base) {
  if (j.contains(textKey)) {
    std::string t = j[textKey].get<std::string>();
    return std::vector<uint8_t>(t.begin(), t.end());
  }
  if (j.contains(fileKey)) {
    std::filesystem::path p = j[fileKey].get<std::string>();
    return readAll(p.is_absolute() ? p : base / p);
  }
  return std::nullopt;
}

void fourCC(const json& j, const char* key, char* out) {
  if (!j.contains(key)) return;
  std::string s = j[key].get<std::string>();
  if (s.size() != 4) throw BuildError(std::string(key) + " must have four characters");
  std::memcpy(out, s.data(), 4);
}

EntrySpec entryOf(const json& j, const std::filesystem::path& base) {
  EntrySpec e;
  e.name = j.at("name").get<std::string>();
  e.folder = j.value("folder", false) || j.contains("children");
  if (j.contains("children"))
    for (const auto& c : j["children"]) e.children.push_back(entryOf(c, base));
  e.data = bytesOf(j, "text", "file", base);
  if (j.contains("size")) e.dataSize = sizeOf(j["size"], "size");
  e.rsrc = bytesOf(j, "rsrcText", "rsrcFile", base);
  if (j.contains("rsrcSize")) e.rsrcSize = sizeOf(j["rsrcSize"], "rsrcSize");
  e.sparse = j.value("sparse", false);
  e.dataFragments = j.value("fragments", 1u);
  e.rsrcFragments = j.value("rsrcFragments", 1u);
  if (j.contains("created")) e.created = dateOf(j["created"]);
  if (j.contains("modified")) e.modified = dateOf(j["modified"]);
  fourCC(j, "type", e.fileType);
  fourCC(j, "creator", e.creator);
  e.finderFlags = j.value("finderFlags", uint16_t(0));
  e.mode = j.value("mode", uint16_t(0));
  e.uid = j.value("uid", 501u);
  e.gid = j.value("gid", 20u);
  e.deleted = j.value("deleted", false);
  e.inOldNodes = j.value("inOldNodes", true);
  if (j.contains("previousSize")) e.previousSize = sizeOf(j["previousSize"], "previousSize");
  e.previousBlocksReused = j.value("previousBlocksReused", false);
  if (j.contains("accessed")) e.accessed = dateOf(j["accessed"]);
  if (j.contains("xattrs")) {
    for (const auto& x : j["xattrs"]) {
      auto value = bytesOf(x, "text", "file", base);
      if (!value) throw BuildError("an attribute needs \"text\" or \"file\"");
      e.xattrs.push_back({x.at("name").get<std::string>(), std::move(*value)});
    }
  }
  e.compressed = j.value("compressed", false);
  e.hardLinkTo = j.value("hardLinkTo", std::string());
  e.folderLinkTo = j.value("folderLinkTo", std::string());
  if (j.contains("symlinkTo")) e.symlinkTo = j["symlinkTo"].get<std::string>();
  return e;
}

VolumeSpec volumeOf(const json& j, const std::filesystem::path& base) {
  VolumeSpec v;
  v.name = j.value("name", v.name);
  std::string format = j.value("format", std::string("hfs+"));
  if (format != "hfs+" && format != "hfsx") throw BuildError("format is \"hfs+\" or \"hfsx\"");
  v.hfsx = format == "hfsx";
  v.blockSize = static_cast<uint32_t>(j.contains("blockSize") ? sizeOf(j["blockSize"], "blockSize") : v.blockSize);
  v.nodeSize = static_cast<uint32_t>(j.contains("nodeSize") ? sizeOf(j["nodeSize"], "nodeSize") : v.nodeSize);
  v.extentsNodeSize = static_cast<uint32_t>(j.contains("extentsNodeSize") ? sizeOf(j["extentsNodeSize"], "extentsNodeSize") : v.extentsNodeSize);
  if (j.contains("size")) v.sizeBytes = sizeOf(j["size"], "size");
  if (j.contains("journal")) {
    const auto& jj = j["journal"];
    if (jj.is_boolean()) {
      v.journal = jj.get<bool>();
    } else {
      v.journal = true;
      if (jj.contains("size")) v.journalSize = sizeOf(jj["size"], "journal size");
    }
  }
  v.wrapper = j.value("wrapper", false);
  v.catalogExtents = j.value("catalogExtents", 1u);
  v.journalLeafCopies = j.value("journalLeafCopies", 0u);
  v.journalWrap = j.value("journalWrap", false);
  if (j.contains("created")) v.created = dateOf(j["created"]);
  v.seed = j.value("seed", v.seed);
  if (j.contains("tree"))
    for (const auto& e : j["tree"]) v.root.push_back(entryOf(e, base));
  if (j.contains("generate")) {
    const auto& g = j["generate"];
    GenerateSpec gs;
    gs.files = g.value("files", 0u);
    gs.folders = g.value("folders", 0u);
    gs.seed = g.value("seed", gs.seed);
    if (g.contains("minSize")) gs.minSize = sizeOf(g["minSize"], "minSize");
    if (g.contains("maxSize")) gs.maxSize = sizeOf(g["maxSize"], "maxSize");
    gs.variedNames = g.value("variedNames", true);
    v.generate = gs;
  }
  if (j.contains("freePayloads"))
    for (const auto& p : j["freePayloads"]) {
      PayloadSpec ps;
      ps.bytes = bytesOf(p, "text", "file", base);
      if (p.contains("size")) ps.size = sizeOf(p["size"], "payload size");
      ps.seed = p.value("seed", ps.seed);
      v.freePayloads.push_back(std::move(ps));
    }
  if (j.contains("damage")) {
    const auto& d = j["damage"];
    auto header = [&](const char* key) {
      std::string h = d.value(key, std::string("intact"));
      if (h == "zero") return VolumeDamage::Header::Zeroed;
      if (h == "corrupt") return VolumeDamage::Header::Corrupted;
      if (h != "intact") throw BuildError(std::string(key) + " is \"zero\", \"corrupt\" or \"intact\"");
      return VolumeDamage::Header::Intact;
    };
    v.damage.primaryHeader = header("primaryHeader");
    v.damage.alternateHeader = header("alternateHeader");
    v.damage.catalogHeaderCorrupted = d.value("catalogHeader", false);
    v.damage.extentsHeaderCorrupted = d.value("extentsHeader", false);
    v.damage.catalogRootCorrupted = d.value("catalogRoot", false);
    v.damage.overwriteLeafPositions = d.value("overwriteLeafPositions", std::vector<uint32_t>{});
    if (d.contains("zeroFirst")) v.damage.zeroFirstBytes = sizeOf(d["zeroFirst"], "zeroFirst");
    if (d.contains("leafChain")) {
      LeafChainDamage lc;
      std::string mode = d["leafChain"].value("mode", std::string("zero"));
      if (mode == "zero") lc.mode = LeafChainDamage::Mode::Zero;
      else if (mode == "index") lc.mode = LeafChainDamage::Mode::IntoIndex;
      else if (mode == "loop") lc.mode = LeafChainDamage::Mode::Loop;
      else throw BuildError("leafChain mode is \"zero\", \"index\" or \"loop\"");
      lc.leaf = d["leafChain"].value("leaf", -1);
      v.damage.leafChain = lc;
    }
    if (d.contains("overwriteNodes")) {
      v.damage.overwriteNodes = d["overwriteNodes"].value("count", 1u);
      v.damage.overwriteSeed = d["overwriteNodes"].value("seed", uint64_t(1));
    }
    if (d.contains("overwriteLeaves")) {
      v.damage.overwriteLeafPercent = d["overwriteLeaves"].value("percent", 10u);
      v.damage.overwriteSeed = d["overwriteLeaves"].value("seed", v.damage.overwriteSeed);
    }
    v.damage.oldNodeCopies = d.value("oldNodeCopies", 0u);
  }
  return v;
}

json extentsJson(const std::vector<ExtentLayout>& ext) {
  json a = json::array();
  for (const auto& e : ext) a.push_back({e.startBlock, e.blockCount});
  return a;
}

json btreeJson(const BTreeLayout& t) {
  json nodes = json::array();
  for (const auto& n : t.nodes)
    nodes.push_back({{"node", n.node}, {"kind", n.kind}, {"height", n.height}, {"records", n.numRecords}, {"sector", n.sector}});
  return {{"nodeSize", t.nodeSize}, {"depth", t.depth}, {"rootNode", t.rootNode}, {"firstLeafNode", t.firstLeafNode},
          {"lastLeafNode", t.lastLeafNode}, {"leafRecords", t.leafRecords}, {"totalNodes", t.totalNodes},
          {"freeNodes", t.freeNodes}, {"extents", extentsJson(t.extents)}, {"nodes", nodes}};
}

json volumeJson(const VolumeLayout& v) {
  json entries = json::array();
  for (const auto& e : v.entries)
    entries.push_back({{"path", e.path}, {"cnid", e.cnid}, {"parentID", e.parentID}, {"folder", e.folder},
                       {"deleted", e.deleted}, {"dataSize", e.dataSize}, {"rsrcSize", e.rsrcSize},
                       {"dataExtents", extentsJson(e.dataExtents)}, {"rsrcExtents", extentsJson(e.rsrcExtents)},
                       {"recordNode", e.recordNode}, {"threadNode", e.threadNode}});
  json payloads = json::array();
  for (const auto& p : v.payloads) payloads.push_back({{"sector", p.sector}, {"size", p.size}});
  return {{"name", v.name}, {"hfsx", v.hfsx}, {"wrapped", v.wrapped}, {"startSector", v.startSector},
          {"sizeSectors", v.sizeSectors}, {"HPlusVolStart", v.HPlusVolStart}, {"blockSize", v.blockSize},
          {"totalBlocks", v.totalBlocks}, {"freeBlocks", v.freeBlocks}, {"fileCount", v.fileCount},
          {"folderCount", v.folderCount}, {"alternateHeaderSector", v.alternateHeaderSector},
          {"journalInfoBlock", v.journalInfoBlock}, {"journalStart", v.journalStart}, {"journalSize", v.journalSize},
          {"journalNodeCopySectors", v.journalNodeCopySectors}, {"freeSpaceNodeCopySectors", v.freeSpaceNodeCopySectors},
          {"overwrittenNodes", v.overwrittenNodes}, {"brokenLeaf", v.brokenLeaf}, {"payloads", payloads},
          {"catalog", btreeJson(v.catalog)}, {"extentsFile", btreeJson(v.extentsTree)}, {"entries", entries}};
}

}  // namespace

DriveSpec parseDescription(const std::string& text, const std::filesystem::path& baseDir) {
  json j;
  try {
    j = json::parse(text);
  } catch (const json::exception& e) {
    throw BuildError(std::string("description is not JSON: ") + e.what());
  }
  try {
    DriveSpec d;
    std::string table = j.value("table", std::string("gpt"));
    if (table == "none") d.table = TableKind::None;
    else if (table == "mbr") d.table = TableKind::MBR;
    else if (table == "gpt") d.table = TableKind::GPT;
    else if (table == "apm") d.table = TableKind::APM;
    else throw BuildError("table is \"none\", \"mbr\", \"gpt\" or \"apm\"");
    if (j.contains("size")) d.sizeBytes = sizeOf(j["size"], "size");
    d.extendedType = j.value("extendedType", uint8_t(0x05));
    if (d.extendedType != 0x05 && d.extendedType != 0x0F && d.extendedType != 0x85)
      throw BuildError("extendedType is 5, 15 or 133");
    if (j.contains("volume")) d.volume = volumeOf(j["volume"], baseDir);
    if (j.contains("partitions"))
      for (const auto& p : j["partitions"]) {
        PartitionSpec ps;
        std::string type = p.value("type", std::string("hfs+"));
        if (type == "hfs+") ps.kind = PartitionSpec::Kind::HFSPlus;
        else if (type == "hfsx") ps.kind = PartitionSpec::Kind::HFSX;
        else if (type == "free") ps.kind = PartitionSpec::Kind::Free;
        else if (type == "other") ps.kind = PartitionSpec::Kind::Other;
        else throw BuildError("partition type is \"hfs+\", \"hfsx\", \"free\" or \"other\"");
        ps.name = p.value("name", std::string());
        if (p.contains("start")) ps.startSector = p["start"].get<uint64_t>();
        if (p.contains("size")) ps.sizeSectors = sizeOf(p["size"], "partition size") / 512;
        ps.logical = p.value("logical", false);
        ps.mbrType = p.value("mbrType", uint8_t(0));
        ps.apmType = p.value("apmType", std::string());
        if (p.contains("volume")) ps.volume = volumeOf(p["volume"], baseDir);
        d.partitions.push_back(std::move(ps));
      }
    if (j.contains("damage")) {
      d.wipePartitionTable = j["damage"].value("wipePartitionTable", false);
      if (j["damage"].contains("truncate")) d.truncateToBytes = sizeOf(j["damage"]["truncate"], "truncate");
    }
    return d;
  } catch (const json::exception& e) {
    throw BuildError(std::string("bad description: ") + e.what());
  }
}

DriveSpec loadDescription(const std::filesystem::path& file) {
  std::vector<uint8_t> bytes = readAll(file);
  return parseDescription(std::string(bytes.begin(), bytes.end()), file.parent_path());
}

std::string layoutToJson(const DriveLayout& layout) {
  json parts = json::array();
  for (const auto& p : layout.partitions) {
    json pj = {{"startSector", p.startSector}, {"sizeSectors", p.sizeSectors}, {"name", p.name},
               {"type", p.type}, {"logical", p.logical}};
    if (p.volume) pj["volume"] = volumeJson(*p.volume);
    parts.push_back(pj);
  }
  static const char* tables[] = {"none", "mbr", "gpt", "apm"};
  json j = {{"table", tables[static_cast<int>(layout.table)]}, {"sizeBytes", layout.sizeBytes},
            {"partitions", parts}, {"ebrSectors", layout.ebrSectors}};
  if (layout.volume) j["volume"] = volumeJson(*layout.volume);
  return j.dump(1);
}

}  // namespace ambrel::mkimage
