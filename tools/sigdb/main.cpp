// ambrel-sigdb: compiles the signature table (resources/signatures.table)
// into the database files the program reads, Signature.dat and its backup.
#include <fmt/format.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include "carving/SignatureTable.h"
#include "scaninfo/ArchivedClasses.h"

using namespace ambrel;

namespace {

bool writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out.flush());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    fmt::print(stderr, "usage: ambrel-sigdb TABLE OUT_DIR\n"
                       "Writes OUT_DIR/Signature.dat and OUT_DIR/Signature_backup.dat from TABLE.\n");
    return 2;
  }
  std::ifstream in(argv[1], std::ios::binary);
  if (!in) {
    fmt::print(stderr, "ambrel-sigdb: cannot read {}\n", argv[1]);
    return 1;
  }
  std::stringstream text;
  text << in.rdbuf();
  const SignatureTableResult table = parseSignatureTable(text.str());
  for (const auto& e : table.errors) fmt::print(stderr, "{}: {}\n", argv[1], e);
  if (!table.errors.empty() || table.categories.empty()) {
    if (table.categories.empty()) fmt::print(stderr, "{}: no file types\n", argv[1]);
    return 1;
  }
  const std::vector<uint8_t> bytes = archiveSignatureDatabase(table.categories);
  // Both files start equal: the working one may be edited (as the user's
  // copy), the backup never.
  const std::string dir = argv[2];
  for (const char* name : {"Signature.dat", "Signature_backup.dat"}) {
    if (!writeFile(dir + "/" + name, bytes)) {
      fmt::print(stderr, "ambrel-sigdb: cannot write {}/{}\n", dir, name);
      return 1;
    }
  }
  size_t types = 0;
  for (const auto& c : table.categories) types += c.children ? c.children->size() : 0;
  fmt::print("{} categories, {} file types, {} bytes\n", table.categories.size(), types, bytes.size());
  return 0;
}
