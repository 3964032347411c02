// `ambrel-cli recover --report`: the DFXML report read back by python3,
// its byte runs checked against the builder's layout and the image, its
// hashes against the saved files, its scan log against the damage made.
#include <gtest/gtest.h>

#include <sstream>

#include "output/OutputHelpers.h"
#include "support/CliRun.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

struct Row {
  std::string kind, size, origin, saved, runs, hashes, same;
};

struct Report {
  std::map<std::string, Row> files;  // by saved path
  std::map<std::string, std::vector<std::string>> log;
};

// Saves everything of `image` with a report and reads the report back.
Report recoverWithReport(const TempDir& dir, const std::string& image, const std::string& flags, int& status) {
  const fs::path out = dir / "saved", xml = dir / "report.xml";
  std::string text;
  status = runCommand(cliPath() + " recover " + flags + " '" + image + "' --out '" + out.string() + "' --report '" +
                          xml.string() + "' 2>&1",
                      &text);
  EXPECT_NE(text.find("Report: "), std::string::npos) << text;
  std::string rows;
  EXPECT_EQ(runCommand("python3 '" AMBREL_SOURCE_DIR "/tests/output/report_reader.py' '" + xml.string() + "' '" +
                           out.string() + "' '" + image + "'",
                       &rows),
            0)
      << rows;
  Report r;
  std::istringstream in(rows);
  std::string line;
  while (std::getline(in, line)) {
    std::vector<std::string> cells;
    std::istringstream cs(line);
    std::string cell;
    while (std::getline(cs, cell, '\t')) cells.push_back(cell);
    if (line.size() && line.back() == '\t') cells.push_back("");
    if (cells.size() >= 2 && cells[0] == "log") {
      r.log[cells[1]] = std::vector<std::string>(cells.begin() + 2, cells.end());
    } else if (cells.size() == 8) {
      r.files[cells[0]] = Row{cells[1], cells[2], cells[3], cells[4], cells[5], cells[6], cells[7]};
    } else {
      ADD_FAILURE() << "unexpected row: " << line;
    }
  }
  return r;
}

// The data runs the layout gives a file: absolute byte offsets, the last cut to the size.
std::string layoutRuns(const mk::VolumeLayout& v, const mk::FileLayout& f) {
  std::string s;
  uint64_t left = f.dataSize;
  for (const auto& e : f.dataExtents) {
    if (left == 0) break;
    const uint64_t len = std::min<uint64_t>(left, uint64_t(e.blockCount) * v.blockSize);
    if (!s.empty()) s += ',';
    s += std::to_string(v.blockToSector(e.startBlock) * 512) + "+" + std::to_string(len);
    left -= len;
  }
  return s;
}

}  // namespace

TEST(CliReport, EverySavedFileWithItsRunsHashesAndOrigin) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.name = "Reported";
  spec.journal = true;
  mk::EntrySpec gone = fileSpec("gone.bin", 9000);
  gone.deleted = true;
  spec.root = {folderOf("Docs", {fileSpec("frag.dat", 70000, 0, 4), fileSpec("both.txt", 1500, 600)}),
               fileSpec("small.txt", 20), gone};
  const BuiltVolume b = buildAndScan(dir, spec);
  int status = -1;
  const Report r = recoverWithReport(dir, b.image, "--advanced", status);
  EXPECT_EQ(status, 0);

  for (const char* path : {"Docs/frag.dat", "Docs/both.txt", "small.txt"}) {
    SCOPED_TRACE(path);
    const auto* f = b.vol().find(path);
    ASSERT_NE(f, nullptr);
    auto it = r.files.find(std::string("Root/") + path);
    ASSERT_NE(it, r.files.end());
    const Row& row = it->second;
    EXPECT_EQ(row.kind, "r");
    EXPECT_EQ(row.size, std::to_string(f->dataSize));
    EXPECT_EQ(row.origin, "catalog");
    EXPECT_EQ(row.saved, "whole");
    EXPECT_EQ(row.runs, layoutRuns(b.vol(), *f));
    EXPECT_EQ(row.hashes, "ok");
    EXPECT_EQ(row.same, "same");
    if (haveIcat()) {
      EXPECT_EQ(readFile(dir / "saved/Root" / path), icat(b.image, 0, f->cnid));
    }
  }
  // The resource fork's "._" file has an object of its own, hashed from what is on disk.
  {
    const auto* f = b.vol().find("Docs/both.txt");
    ASSERT_NE(f, nullptr);
    auto it = r.files.find("Root/Docs/._both.txt");
    ASSERT_NE(it, r.files.end());
    const Row& row = it->second;
    EXPECT_EQ(row.size, std::to_string(fs::file_size(dir / "saved/Root/Docs/._both.txt")));
    EXPECT_GT(std::stoull(row.size), f->rsrcSize);
    EXPECT_EQ(row.origin, "catalog");
    EXPECT_EQ(row.hashes, "ok");
    EXPECT_EQ(row.same, "same");
    uint64_t runBytes = 0;
    std::istringstream runs(row.runs);
    for (std::string run; std::getline(runs, run, ',');) runBytes += std::stoull(run.substr(run.find('+') + 1));
    EXPECT_EQ(runBytes, f->rsrcSize);
    if (haveIcat()) {
      const auto bytes = readFile(dir / "saved/Root/Docs/._both.txt");
      const auto rsrc = icat(b.image, 0, f->cnid, true);
      ASSERT_EQ(rsrc.size(), f->rsrcSize);
      EXPECT_TRUE(std::equal(rsrc.begin(), rsrc.end(), bytes.end() - static_cast<long>(rsrc.size())));
    }
  }
  // Only the file with a resource fork has one.
  size_t sidecars = 0;
  for (const auto& [path, row] : r.files) sidecars += fs::path(path).filename().string().rfind("._", 0) == 0;
  EXPECT_EQ(sidecars, 1u);
  // The deleted file is known only from the journal's old catalog nodes.
  const auto* g = b.vol().find("gone.bin");
  ASSERT_NE(g, nullptr);
  const Row* deleted = nullptr;
  for (const auto& [path, row] : r.files)
    if (fs::path(path).filename() == "gone.bin") deleted = &row;
  ASSERT_NE(deleted, nullptr);
  EXPECT_EQ(deleted->origin, "journal");
  EXPECT_EQ(deleted->runs, layoutRuns(b.vol(), *g));
  EXPECT_EQ(deleted->hashes, "ok");
  EXPECT_EQ(deleted->same, "same");
  EXPECT_EQ(r.log.at("read_errors"), (std::vector<std::string>{"0", "0"}));
  EXPECT_EQ(r.log.at("bridged_chains"), std::vector<std::string>{"0"});
}

TEST(CliReport, ScanLogNamesTheOverwrittenLeafAndTheBridgedChain) {
  TempDir dir;
  mk::VolumeSpec spec;
  spec.nodeSize = 4096;
  spec.generate = mk::GenerateSpec{400, 20, 3, 10, 200, false};
  spec.damage.overwriteLeafPositions = {2};
  const BuiltVolume b = buildAndScan(dir, spec);
  int status = -1;
  const Report r = recoverWithReport(dir, b.image, "", status);
  ASSERT_EQ(b.vol().overwrittenNodes.size(), 1u);
  uint64_t sector = 0;
  for (const auto& n : b.vol().catalog.nodes)
    if (n.node == b.vol().overwrittenNodes[0]) sector = n.sector;
  ASSERT_NE(sector, 0u);
  EXPECT_EQ(r.log.at("damaged_nodes"), std::vector<std::string>{"1"});
  EXPECT_EQ(r.log.at("bridged_chains"), std::vector<std::string>{"1"});
  // Every file the save kept is in the report with good hashes.
  size_t saved = 0;
  for (const auto& [path, row] : r.files) {
    EXPECT_EQ(row.hashes, "ok") << path;
    EXPECT_EQ(row.same, "same") << path;
    ++saved;
  }
  EXPECT_GT(saved, 300u);
  EXPECT_LT(saved, 400u);  // the overwritten leaf's files are gone
}
