#pragma once
// Running ambrel-cli from a test (the binary ctest names in AMBREL_CLI), and
// reading back what it lists.
#include <stdio.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <string>

#include "core/TreeListing.h"
#include "support/TempDir.h"

namespace ambrel::test {

inline std::string cliPath() {
  const char* p = std::getenv("AMBREL_CLI");
  return p ? p : "ambrel-cli";
}

// `ambrel-cli ARGS` with standard error joined to the output; `prefix` runs
// first in the same shell (ulimit, umask, trap).
inline int runCli(const std::string& args, std::string& out, const std::string& prefix = "") {
  out.clear();
  return runCommand(prefix + cliPath() + " " + args + " 2>&1", &out);
}

// The path column of a TSV listing, its header left out.
inline std::set<std::string> listedPaths(const std::string& listing) {
  std::set<std::string> paths;
  std::istringstream in(listing);
  std::string line;
  std::getline(in, line);
  while (std::getline(in, line)) paths.insert(line.substr(0, line.find('\t')));
  return paths;
}

// The TSV listing of a tree, as `ambrel-cli tree` prints it.
inline std::string tsvListing(const HDIR& root) {
  char* buf = nullptr;
  size_t len = 0;
  FILE* f = ::open_memstream(&buf, &len);
  writeTreeListing(root, ListingFormat::Tsv, f);
  std::fclose(f);
  std::string out(buf, len);
  std::free(buf);
  return out;
}

}  // namespace ambrel::test
