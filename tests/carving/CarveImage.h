#pragma once
// Helpers of the carving tests: files made by real tools (ImageMagick, PIL,
// ffmpeg), drives of random bytes with files planted at known sectors,
// validators run over bytes, and searches run over image files.
#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "carving/SignatureDatabase.h"
#include "carving/SignatureSearch.h"
#include "carving/Validators.h"
#include "hfs/Volume.h"
#include "support/QuietController.h"
#include "support/TempDir.h"

namespace ambrel::test {

// Deterministic noise: what free space looks like.
std::vector<uint8_t> noise(size_t size, uint64_t seed);

// Runs `command` (with {out} replaced by a scratch path) and returns the file
// it made; empty when the tool is missing or failed.
std::vector<uint8_t> madeBy(const std::string& tool, const std::string& command, const std::string& extension);
// Shortcuts: `convert ARGS out.EXT`, and a python3 script with PIL that
// writes to sys.argv[1].
std::vector<uint8_t> convertImage(const std::string& args, const std::string& extension);
std::vector<uint8_t> pilImage(const std::string& script, const std::string& extension);
bool havePil();

// A file of the source tree as text.
std::string sourceText(const std::string& relative);

// A carving sample of the shared test data (empty when that is not there).
std::vector<uint8_t> sample(const std::string& relative);
// The structural length the shared reference table gives a sample (-1 when absent).
int64_t referenceStructuralEnd(const std::string& relative);

struct ValidatorRun {
  bool accepted = false;
  uint64_t foundSize = 0;
  bool skipFileSize = false;
  uint32_t skipSize = 0;
  std::string extension;  // the record's after the run ("x" before it)
};

// The file at `block` of a drive (blocks of blockSize sectors, the rest
// noise or what `drive` already holds), through the validator.
ValidatorRun runValidator(ValidatorFn fn, const std::vector<uint8_t>& file, int32_t blockSize = 8,
                          uint64_t block = 3, size_t driveBytes = 0, uint64_t noiseSeed = 7);
ValidatorRun runValidatorOnDrive(ValidatorFn fn, const std::vector<uint8_t>& drive, uint64_t block,
                                 int32_t blockSize, uint64_t totalBlocks);

struct Planted {
  std::string name;
  uint64_t sector = 0;
  std::vector<uint8_t> bytes;
};

// A noise-filled drive image with the files written at their sectors.
void writeDrive(const std::filesystem::path& path, uint64_t bytes, const std::vector<Planted>& files,
                uint64_t seed = 11);

// A Sig for a search or a validator run.
std::unique_ptr<Sig> makeSig(const std::string& category, const std::string& extension, const std::string& hex,
                             uint16_t offset, uint32_t code, uint64_t userSize = 1 << 20);

// Every file-type record of the built database (Signature.dat of the build
// tree), with userSize set.
struct BuiltDatabase {
  SigNode::ChildArray root;
  std::vector<const Sig*> all() const;
  std::vector<const Sig*> withExtensions(const std::vector<std::string>& extensions) const;
};
BuiltDatabase builtDatabase(uint64_t userSize = 1 << 20);
std::string builtResourceDir();

// A whole drive opened for the drive search.
struct DriveUnderSearch {
  std::unique_ptr<QuietController> controller;
  std::unique_ptr<Volume> volume;
  explicit DriveUnderSearch(const std::filesystem::path& image, float startPos = 0, float endPos = 100);
};

// One entry of a carved tree.
struct CarvedFile {
  std::string path;  // "/Root/Images/jpg/File1.jpg"
  uint64_t startBlock = 0;
  uint64_t blocks = 0;
  uint64_t size = 0;
};
std::vector<CarvedFile> carvedFiles(const HDIR& root);
// The bytes a carved file's extent holds on the drive image.
std::vector<uint8_t> carvedBytes(const std::filesystem::path& image, uint64_t HPlusVolStart, int32_t blockSize,
                                 const CarvedFile& f);

}  // namespace ambrel::test
