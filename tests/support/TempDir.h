#pragma once
// A scratch folder removed with its contents when the test ends.
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace ambrel::test {

class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::string& name) const { return path_ / name; }

 private:
  std::filesystem::path path_;
};

void writeFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes);
std::vector<uint8_t> readFile(const std::filesystem::path& path);

// Runs a shell command; returns its exit status and fills `output` with stdout.
int runCommand(const std::string& command, std::string* output = nullptr);
// True when `tool` is on PATH.
bool haveTool(const std::string& tool);
// The path of the shared real-image folder, or empty when it is not there.
std::filesystem::path sharedTestData();

}  // namespace ambrel::test
