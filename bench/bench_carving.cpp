// The signature search against `cat` and PhotoRec on one 2 GiB image read
// from the page cache: an HFS+ volume whose free blocks hold real files of
// every pre-installed type between runs of random bytes. Every pre-installed
// type is selected. Prints each side's best and median throughput over
// several runs, the files each found, and the peak memory of a process that
// searches half and all of the volume (flat: only the entries grow).
//
// Budgets: the volume search at least 80 % of cat's speed, the drive search
// at least 1 GB/s, the volume search at least 1.5 times PhotoRec's speed.
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fmt/format.h>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "BenchDir.h"
#include "ImageBuilder.h"
#include "carving/SignatureDatabase.h"
#include "carving/SignatureSearch.h"
#include "hfs/Volume.h"
#include "support/QuietController.h"

using namespace ambrel;
namespace fs = std::filesystem;

namespace {

constexpr uint64_t kImageBytes = 2ull << 30;
constexpr int kOurRuns = 5;
constexpr int kPhotoRecRuns = 3;

int run(const std::string& command) {
  const int status = std::system(command.c_str());
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::vector<uint8_t> slurp(const fs::path& p) {
  std::ifstream in(p, std::ios::binary);
  return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

// Real files of every pre-installed type: made by ImageMagick, ffmpeg, zip
// and python3 where installed, and the shared carving samples.
std::vector<std::pair<std::string, std::vector<uint8_t>>> realFiles(const fs::path& work) {
  std::vector<std::pair<std::string, std::vector<uint8_t>>> out;
  fs::create_directories(work);
  auto make = [&](const std::string& name, const std::string& command) {
    const fs::path p = work / name;
    if (!fs::exists(p) && run(fmt::format(fmt::runtime(command), p.string()) + " >/dev/null 2>&1") != 0) return;
    if (fs::exists(p) && fs::file_size(p) > 0) out.emplace_back(name, slurp(p));
  };
  const char* im = fs::exists("/usr/bin/convert") ? "/usr/bin/convert" : "convert";
  make("photo.jpg", std::string(im) + " -size 1600x1200 plasma:fractal -quality 90 '{}'");
  make("small.jpg", std::string(im) + " -size 320x240 plasma:fractal -quality 80 '{}'");
  make("picture.png", std::string(im) + " -size 800x600 plasma:fractal '{}'");
  make("anim.gif", std::string(im) + " -delay 10 -size 200x200 plasma: plasma: plasma: -colors 64 '{}'");
  make("bitmap.bmp", std::string(im) + " -size 400x300 plasma: '{}'");
  make("scan.tif", std::string(im) + " -size 600x400 plasma: -compress lzw '{}'");
  make("scan_be.tif", std::string(im) + " -size 300x200 plasma: -endian MSB '{}'");
  const std::string ff = "ffmpeg -loglevel error -y ";
  make("tone.wav", ff + "-f lavfi -i sine=frequency=440:duration=3 '{}'");
  make("tone.mp3", ff + "-f lavfi -i sine=frequency=440:duration=3 '{}'");
  make("clip.mp4", ff + "-f lavfi -i testsrc=duration=2:size=320x240:rate=15 -pix_fmt yuv420p '{}'");
  make("clip.mov", ff + "-f lavfi -i testsrc=duration=2:size=320x240:rate=15 '{}'");
  make("clip.avi", ff + "-f lavfi -i testsrc=duration=2:size=320x240:rate=15 '{}'");
  make("clip.3gp", ff + "-f lavfi -i testsrc=duration=2:size=176x144:rate=15 -vcodec h263 '{}'");
  make("clip.mpg", ff + "-f lavfi -i testsrc=duration=2:size=320x240:rate=25 -f vob '{}'");
  make("archive.zip", "cd '" + work.string() + "' && zip -q '{}' photo.jpg picture.png");
  const fs::path shared = fs::path(AMBREL_SHARED_TESTDATA) / "carving_samples";
  for (const char* s : {"icns/fixture.icns", "icns/pdf.icns", "aiff/fixture.aif", "aiff/pluck-pcm16.aiff",
                        "midi/fixture.mid", "3gpp/sample.3gp", "3gpp/sample_3GPP2.3g2", "mpeg_ps/weird_aspect.small.mpg",
                        "ole_cfb/Document.doc", "ole_cfb/fixture.xls.cfb", "rar/test_read_format_rar.rar",
                        "rtf/RtfInterpreterTest_14.rtf", "rtfd/ReadMe.rtfd/GMT 2 Classes.pdf", "camera_raw/CanonRaw.cr2",
                        "camera_raw/Nikon.nef", "camera_raw/Minolta.mrw", "camera_raw/fixture-sony-zv-e10.arw"}) {
    if (fs::exists(shared / s)) out.emplace_back(fs::path(s).filename().string(), slurp(shared / s));
  }
  return out;
}

struct Image {
  fs::path path;
  uint64_t realFiles = 0;
};

// The volume is built once and kept in $AMBREL_BENCH_DIR.
Image image() {
  const fs::path dir = bench::benchDir();
  Image img{dir / "carving_2g.img", 0};
  const fs::path count = dir / "carving_2g.count";
  if (fs::exists(img.path) && fs::exists(count) && fs::file_size(img.path) >= kImageBytes) {
    std::ifstream(count) >> img.realFiles;
    return img;
  }
  const auto files = realFiles(dir / "carving_files");
  mkimage::DriveSpec d;
  d.table = mkimage::TableKind::None;
  mkimage::VolumeSpec v;
  v.name = "Carving bench";
  v.sizeBytes = kImageBytes;
  uint64_t placed = 0, seed = 1;
  // Random runs of 64 KiB to 2 MiB between the files, until the volume is full.
  while (placed + (4u << 20) < kImageBytes - (64u << 20)) {
    for (const auto& [name, bytes] : files) {
      if (placed + bytes.size() + (4u << 20) >= kImageBytes - (64u << 20)) break;
      mkimage::PayloadSpec noise;
      noise.seed = ++seed;
      noise.size = (64u << 10) + (seed * 2654435761u) % (2u << 20);
      mkimage::PayloadSpec file;
      file.bytes = bytes;
      v.freePayloads.push_back(noise);
      v.freePayloads.push_back(file);
      placed += noise.size + bytes.size() + 2 * 4096;
      ++img.realFiles;
    }
    if (files.empty()) break;
  }
  d.volume = v;
  mkimage::buildImage(d, img.path);
  std::ofstream(count) << img.realFiles;
  return img;
}

double seconds(std::chrono::steady_clock::time_point from) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - from).count();
}

struct Rates {
  std::vector<double> v;
  double best() const { return v.empty() ? 0 : *std::max_element(v.begin(), v.end()); }
  double median() const {
    auto s = v;
    std::sort(s.begin(), s.end());
    return s.empty() ? 0 : s[s.size() / 2];
  }
};

// The peak resident memory of this process, in bytes.
uint64_t peakRss() {
  std::ifstream in("/proc/self/status");
  std::string line;
  while (std::getline(in, line))
    if (line.rfind("VmHWM:", 0) == 0) return std::strtoull(line.c_str() + 6, nullptr, 10) * 1024;
  return 0;
}

struct SearchRun {
  double seconds = 0;
  uint32_t files = 0;
  uint64_t peak = 0;
};

SearchRun search(const fs::path& path, const std::vector<const Sig*>& sigs, bool drive, float endPos = 100) {
  std::string error;
  PlistDict dict = driveDictionaryForPath(path.string(), error);
  test::QuietController controller{PlistArray{dict}};
  std::unique_ptr<Volume> volume;
  if (drive) {
    dict.set("WhetherDiskDict", true);
    volume = std::make_unique<Volume>(dict, &controller);
  } else {
    PlistDict v{{"Volume Start", 0}, {"Volume Size In Sectors", dict.u64("device size") / 512},
                {"Volume Name", "bench"}, {"Volume Scan Type", 0}, {"Path", path.string()}};
    volume = std::make_unique<Volume>(v, &controller);
    if (!prepareVolumeForSignatureSearch(*volume, error)) {
      fmt::print(stderr, "bench_carving: {}\n", error);
      std::exit(2);
    }
  }
  volume->endPos = endPos;
  SearchRun r;
  const auto start = std::chrono::steady_clock::now();
  SignatureSearch s(*volume, sigs);
  if (drive) s.signatureSearchDisk();
  else s.signatureSearch();
  r.seconds = seconds(start);
  r.files = volume->fileCount;
  r.peak = peakRss();
  return r;
}

// Files PhotoRec recovered: everything in its recup_dir.N folders but its report.
uint64_t countFiles(const fs::path& dir) {
  uint64_t n = 0;
  std::error_code ec;
  for (const auto& d : fs::directory_iterator(dir, ec)) {
    if (!d.is_directory() || d.path().filename().string().rfind("recup_dir", 0) != 0) continue;
    for (const auto& e : fs::directory_iterator(d.path(), ec))
      if (e.is_regular_file() && e.path().filename() != "report.xml") ++n;
  }
  return n;
}

}  // namespace

// Every file type of the installed database, with a 20 MB maximum size.
std::vector<const Sig*> allTypes(SigNode::ChildArray& db) {
  std::string error;
  auto root = loadSigRootFile(signatureFiles().installed(), error);
  if (!root) {
    fmt::print(stderr, "bench_carving: no signature database: {}\n", error);
    std::exit(2);
  }
  db = std::move(*root);
  std::vector<const Sig*> sigs;
  for (auto& c : db)
    for (const auto& n : c->children())
      if (n->sig) {
        n->sig->userSize = 20u << 20;
        sigs.push_back(n->sig.get());
      }
  return sigs;
}

// A fresh process that searches part of the volume and reports its peak
// memory: "PEAK FILES".
SearchRun memoryRun(const char* self, int percent) {
  std::string out;
  if (FILE* p = ::popen(fmt::format("'{}' --memory {}", self, percent).c_str(), "r")) {
    char buf[256];
    while (std::fgets(buf, sizeof buf, p)) out += buf;
    ::pclose(p);
  }
  SearchRun r;
  std::sscanf(out.c_str(), "%lu %u", &r.peak, &r.files);
  return r;
}

std::vector<const Sig*> allTypes(SigNode::ChildArray& db);

int main(int argc, char** argv) {
  if (argc == 3 && std::string(argv[1]) == "--memory") {
    SigNode::ChildArray db;
    const auto sigs = allTypes(db);
    const SearchRun r = search(image().path, sigs, false, std::strtof(argv[2], nullptr));
    fmt::print("{} {}\n", r.peak, r.files);
    return 0;
  }
  const Image img = image();
  const double bytes = static_cast<double>(fs::file_size(img.path));
  SigNode::ChildArray db;
  const std::vector<const Sig*> sigs = allTypes(db);

  run("cat '" + img.path.string() + "' > /dev/null");  // into the page cache
  Rates cat, volume, drive, photorec;
  uint32_t volumeFiles = 0, driveFiles = 0;
  uint64_t photorecFiles = 0;
  for (int i = 0; i < kOurRuns; ++i) {
    auto start = std::chrono::steady_clock::now();
    run("cat '" + img.path.string() + "' > /dev/null");
    cat.v.push_back(bytes / seconds(start));
    const SearchRun vr = search(img.path, sigs, false);
    volume.v.push_back(bytes / vr.seconds);
    volumeFiles = vr.files;
    const SearchRun dr = search(img.path, sigs, true);
    drive.v.push_back(bytes / dr.seconds);
    driveFiles = dr.files;
  }
  const bool havePhotoRec = run("command -v photorec >/dev/null 2>&1") == 0;
  for (int i = 0; havePhotoRec && i < kPhotoRecRuns; ++i) {
    const fs::path out = bench::benchDir() / "photorec_out";
    fs::remove_all(out);
    fs::create_directories(out);
    const auto start = std::chrono::steady_clock::now();
    run("cd '" + out.string() + "' && photorec /log /d '" + (out / "recup_dir").string() + "' /cmd '" +
        img.path.string() + "' partition_none,options,mode_ext2,fileopt,everything,enable,search >/dev/null 2>&1");
    photorec.v.push_back(bytes / seconds(start));
    photorecFiles = countFiles(out);
  }
  const SearchRun half = memoryRun(argv[0], 50);
  const SearchRun whole = memoryRun(argv[0], 100);

  auto gb = [](double r) { return r / 1e9; };
  fmt::print("image: {:.2f} GiB, {} real files planted in free blocks between random bytes\n", bytes / (1u << 30),
             img.realFiles);
  fmt::print("cat:           best {:.2f} GB/s, median {:.2f} GB/s ({} runs)\n", gb(cat.best()), gb(cat.median()), kOurRuns);
  fmt::print("volume search: best {:.2f} GB/s, median {:.2f} GB/s, {} files\n", gb(volume.best()), gb(volume.median()),
             volumeFiles);
  fmt::print("drive search:  best {:.2f} GB/s, median {:.2f} GB/s, {} files\n", gb(drive.best()), gb(drive.median()),
             driveFiles);
  if (havePhotoRec)
    fmt::print("PhotoRec:      best {:.3f} GB/s, median {:.3f} GB/s, {} files ({} runs)\n", gb(photorec.best()),
               gb(photorec.median()), photorecFiles, kPhotoRecRuns);
  else
    fmt::print("PhotoRec:      not installed (Debian package testdisk)\n");
  fmt::print("peak memory of a process searching the volume: {:.1f} MiB over half of it ({} files), {:.1f} MiB over "
             "all of it ({} files)\n",
             half.peak / 1048576.0, half.files, whole.peak / 1048576.0, whole.files);

  const double vsCat = volume.best() / cat.best();
  const double vsPhotoRec = havePhotoRec ? volume.best() / photorec.best() : 0;
  bool ok = true;
  fmt::print("volume search / cat: {:.0f} % (budget >= 80 %): {}\n", vsCat * 100, vsCat >= 0.8 ? "within budget" : "OVER BUDGET");
  ok &= vsCat >= 0.8;
  fmt::print("drive search: {:.2f} GB/s (budget >= 1 GB/s): {}\n", gb(drive.best()),
             drive.best() >= 1e9 ? "within budget" : "OVER BUDGET");
  ok &= drive.best() >= 1e9;
  if (havePhotoRec) {
    fmt::print("volume search / PhotoRec: {:.1f}x (budget >= 1.5x): {}\n", vsPhotoRec,
               vsPhotoRec >= 1.5 ? "within budget" : "OVER BUDGET");
    ok &= vsPhotoRec >= 1.5;
  }
  return ok ? 0 : 1;
}
