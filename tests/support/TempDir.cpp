#include "support/TempDir.h"

#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

namespace ambrel::test {

TempDir::TempDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "ambrel-test-XXXXXX").string();
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("mkdtemp failed");
  path_ = pattern;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

void writeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path.string());
}

std::vector<uint8_t> readFile(const std::filesystem::path& path) {
  // In one read: byte by byte, a drive image takes seconds in a sanitizer build.
  std::ifstream in(path, std::ios::binary | std::ios::ate);
  if (!in) return {};
  std::vector<uint8_t> out(static_cast<size_t>(std::max<std::streamoff>(in.tellg(), 0)));
  in.seekg(0);
  in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(out.size()));
  out.resize(static_cast<size_t>(std::max<std::streamsize>(in.gcount(), 0)));
  return out;
}

int runCommand(const std::string& command, std::string* output) {
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return -1;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, pipe)) > 0)
    if (output) output->append(buf, n);
  int status = ::pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

bool haveTool(const std::string& tool) { return runCommand("command -v " + tool + " >/dev/null 2>&1") == 0; }

std::filesystem::path sharedTestData() {
  std::filesystem::path p = AMBREL_SHARED_TESTDATA;
  std::error_code ec;
  return std::filesystem::is_directory(p, ec) ? p : std::filesystem::path();
}

}  // namespace ambrel::test
