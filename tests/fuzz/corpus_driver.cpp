// Replays every file of a seed corpus folder through a libFuzzer harness, so
// ordinary builds exercise the harnesses without clang's libFuzzer.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

int main(int argc, char** argv) {
  int files = 0;
  for (int i = 1; i < argc; ++i) {
    std::filesystem::path root = argv[i];
    std::vector<std::filesystem::path> inputs;
    if (std::filesystem::is_directory(root)) {
      for (const auto& e : std::filesystem::recursive_directory_iterator(root))
        if (e.is_regular_file()) inputs.push_back(e.path());
    } else {
      inputs.push_back(root);
    }
    for (const auto& p : inputs) {
      std::ifstream in(p, std::ios::binary);
      std::vector<uint8_t> bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
      LLVMFuzzerTestOneInput(bytes.data(), bytes.size());
      // Every prefix too: truncated inputs are the commonest damage.
      for (size_t cut = 0; cut < bytes.size(); cut += 1 + bytes.size() / 64)
        LLVMFuzzerTestOneInput(bytes.data(), cut);
      ++files;
    }
  }
  std::printf("replayed %d inputs\n", files);
  return files > 0 ? 0 : 1;
}
