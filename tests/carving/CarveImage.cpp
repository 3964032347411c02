#include "CarveImage.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

namespace ambrel::test {

std::vector<uint8_t> noise(size_t size, uint64_t seed) {
  std::vector<uint8_t> out(size);
  uint64_t s = seed * 0x9E3779B97F4A7C15ull + 1;
  for (size_t i = 0; i < size; i += 8) {
    s ^= s << 13, s ^= s >> 7, s ^= s << 17;
    std::memcpy(out.data() + i, &s, std::min<size_t>(8, size - i));
  }
  return out;
}

std::vector<uint8_t> madeBy(const std::string& tool, const std::string& command, const std::string& extension) {
  if (!haveTool(tool)) return {};
  TempDir dir;
  const std::string out = (dir / ("made." + extension)).string();
  std::string cmd = command;
  for (size_t at; (at = cmd.find("{out}")) != std::string::npos;) cmd.replace(at, 5, "'" + out + "'");
  if (runCommand(cmd + " >/dev/null 2>&1") != 0) return {};
  return readFile(out);
}

std::vector<uint8_t> convertImage(const std::string& args, const std::string& extension) {
  // The real ImageMagick only; a stand-in earlier on PATH may know just PPM.
  const char* convert = std::filesystem::exists("/usr/bin/convert") ? "/usr/bin/convert" : "convert";
  return madeBy(convert, std::string(convert) + " " + args + " " + extension + ":{out}", extension);
}

bool havePil() { return runCommand("/usr/bin/python3 -c 'import PIL' >/dev/null 2>&1") == 0; }

std::vector<uint8_t> pilImage(const std::string& script, const std::string& extension) {
  if (!havePil()) return {};
  TempDir dir;
  const auto py = dir / "make.py";
  writeFile(py, std::vector<uint8_t>(script.begin(), script.end()));
  return madeBy("/usr/bin/python3", "/usr/bin/python3 '" + py.string() + "' {out}", extension);
}

std::string sourceText(const std::string& relative) {
  const auto bytes = readFile(std::filesystem::path(AMBREL_SOURCE_DIR) / relative);
  return std::string(bytes.begin(), bytes.end());
}

std::vector<uint8_t> sample(const std::string& relative) {
  const auto root = sharedTestData();
  if (root.empty()) return {};
  return readFile(root / "carving_samples" / relative);
}

int64_t referenceStructuralEnd(const std::string& relative) {
  const auto root = sharedTestData();
  if (root.empty()) return -1;
  std::ifstream in(root / "reference_outputs" / "carving_structural_check.tsv");
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(relative + "\t", 0) != 0) continue;
    const size_t at = line.find("structural_end=");
    if (at == std::string::npos) return -1;
    return std::strtoll(line.c_str() + at + 15, nullptr, 10);
  }
  return -1;
}

ValidatorRun runValidatorOnDrive(ValidatorFn fn, const std::vector<uint8_t>& drive, uint64_t block,
                                 int32_t blockSize, uint64_t totalBlocks) {
  MemorySectorSource source(drive);
  SearchState state;
  Candidate c(source, CarveGeometry{0, blockSize, totalBlocks}, block, state);
  auto sig = makeSig("T", "x", "00", 0, 0);
  sig->skipSize = 12345;  // what a validator that leaves it alone leaves
  ValidatorRun r;
  r.accepted = fn(c, *sig);
  r.foundSize = sig->foundSize;
  r.skipFileSize = sig->skipFileSize;
  r.skipSize = sig->skipSize;
  r.extension = sig->extension;
  return r;
}

ValidatorRun runValidator(ValidatorFn fn, const std::vector<uint8_t>& file, int32_t blockSize, uint64_t block,
                          size_t driveBytes, uint64_t noiseSeed) {
  const size_t at = static_cast<size_t>(block) * blockSize * 512;
  if (driveBytes == 0) driveBytes = at + file.size() + (1 << 20);
  std::vector<uint8_t> drive = noise(driveBytes, noiseSeed);
  std::copy(file.begin(), file.end(), drive.begin() + static_cast<std::ptrdiff_t>(at));
  return runValidatorOnDrive(fn, drive, block, blockSize, driveBytes / (blockSize * 512));
}

void writeDrive(const std::filesystem::path& path, uint64_t bytes, const std::vector<Planted>& files, uint64_t seed) {
  std::vector<uint8_t> drive = noise(static_cast<size_t>(bytes), seed);
  for (const Planted& a : files)
    for (const Planted& b : files)
      if (&a != &b && a.sector <= b.sector && a.sector * 512 + a.bytes.size() > b.sector * 512)
        throw std::runtime_error("planted files overlap: " + a.name + " and " + b.name);
  for (const Planted& p : files) {
    const size_t at = static_cast<size_t>(p.sector) * 512;
    if (at + p.bytes.size() > drive.size()) throw std::runtime_error("planted file past the drive's end: " + p.name);
    std::copy(p.bytes.begin(), p.bytes.end(), drive.begin() + static_cast<std::ptrdiff_t>(at));
  }
  writeFile(path, drive);
}

std::unique_ptr<Sig> makeSig(const std::string& category, const std::string& extension, const std::string& hex,
                             uint16_t offset, uint32_t code, uint64_t userSize) {
  auto s = std::make_unique<Sig>();
  s->category = category;
  s->extension = extension;
  s->software = extension;
  s->header = getHeaderFromString(hex);
  s->headerLength = static_cast<uint8_t>(hex.size() / 2);
  s->offset = offset;
  s->typeOfFile = code;
  s->userSize = userSize;
  return s;
}

std::string builtResourceDir() { return std::string(AMBREL_BINARY_DIR) + "/resources"; }

BuiltDatabase builtDatabase(uint64_t userSize) {
  BuiltDatabase db;
  std::string error;
  auto root = loadSigRootFile(builtResourceDir() + "/Signature.dat", error);
  if (!root) throw std::runtime_error("the built signature database cannot be read: " + error);
  db.root = std::move(*root);
  for (auto& c : db.root)
    for (const auto& child : c->children())
      if (child->sig) child->sig->userSize = userSize;
  return db;
}

std::vector<const Sig*> BuiltDatabase::all() const {
  std::vector<const Sig*> out;
  for (const auto& c : root)
    for (const auto& child : c->children())
      if (child->sig) out.push_back(child->sig.get());
  return out;
}

std::vector<const Sig*> BuiltDatabase::withExtensions(const std::vector<std::string>& extensions) const {
  std::vector<const Sig*> out;
  for (const Sig* s : all())
    if (std::find(extensions.begin(), extensions.end(), s->extension) != extensions.end()) out.push_back(s);
  return out;
}

DriveUnderSearch::DriveUnderSearch(const std::filesystem::path& image, float startPos, float endPos) {
  std::string error;
  PlistDict drive = driveDictionaryForPath(image.string(), error);
  if (drive.empty()) throw std::runtime_error(error);
  controller = std::make_unique<QuietController>(PlistArray{drive});
  drive.set("WhetherDiskDict", true);
  volume = std::make_unique<Volume>(drive, controller.get());
  volume->startPos = startPos;
  volume->endPos = endPos;
}

std::vector<CarvedFile> carvedFiles(const HDIR& root) {
  std::vector<CarvedFile> out;
  std::vector<const HDIR*> stack{&root};
  while (!stack.empty()) {
    const HDIR* e = stack.back();
    stack.pop_back();
    if (e->fileType == kHDIRFile) {
      CarvedFile f;
      f.path = pathNameOf(*e) + "/" + std::string(e->fileName());
      if (!e->dataExt.empty()) {
        f.startBlock = e->dataExt[0].startBlock;
        f.blocks = e->dataExt[0].blockCount;
      }
      f.size = e->dataSize;
      out.push_back(f);
    }
    for (auto it = e->children().rbegin(); it != e->children().rend(); ++it) stack.push_back(it->get());
  }
  return out;
}

std::vector<uint8_t> carvedBytes(const std::filesystem::path& image, uint64_t HPlusVolStart, int32_t blockSize,
                                 const CarvedFile& f) {
  std::vector<uint8_t> out(static_cast<size_t>(f.size));
  const int fd = ::open(image.c_str(), O_RDONLY | O_CLOEXEC);
  const off_t at = static_cast<off_t>((HPlusVolStart + f.startBlock * uint64_t(blockSize)) * 512);
  const ssize_t got = fd >= 0 ? ::pread(fd, out.data(), out.size(), at) : -1;
  if (fd >= 0) ::close(fd);
  out.resize(got > 0 ? static_cast<size_t>(got) : 0);
  return out;
}

}  // namespace ambrel::test
