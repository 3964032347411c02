// ambrel-cli carve and signatures, as a user runs them.
#include <gtest/gtest.h>

#include <sstream>

#include "CarveImage.h"
#include "ImageBuilder.h"
#include "base/Endian.h"

namespace ambrel::test {
namespace {

// The command line with a scratch data folder, so that no user's own
// database is read or written.
struct Cli {
  TempDir home;
  // Standard error joins the output unless the arguments send it elsewhere.
  std::string run(const std::string& args, int* status = nullptr) {
    const char* cli = std::getenv("AMBREL_CLI");
    std::string out;
    const bool quiet = args.find("2>/dev/null") != std::string::npos;
    const int rc = runCommand("XDG_DATA_HOME='" + (home / "data").string() + "' '" + (cli ? cli : "ambrel-cli") +
                                  "' " + args + (quiet ? "" : " 2>&1"),
                              &out);
    if (status) *status = rc;
    return out;
  }
};

// Small files of each image format, made byte for byte here so that the
// listing they give can be kept as a golden file.
std::vector<uint8_t> jpegFile() {
  std::vector<uint8_t> b = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F', 0, 1, 1, 0, 0, 1, 0, 1, 0, 0,
                            0xFF, 0xC0, 0x00, 0x11, 0x08, 0x00, 0x20, 0x00, 0x20, 0x03, 0x01, 0x22, 0x00, 0x02,
                            0x11, 0x01, 0x03, 0x11, 0x01, 0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00, 0x02, 0x11,
                            0x03, 0x11, 0x00, 0x3F, 0x00};
  for (int i = 0; i < 5000; ++i) b.push_back(static_cast<uint8_t>(0x20 + i % 90));
  b.insert(b.end(), {0xFF, 0xD9});
  return b;
}

std::vector<uint8_t> pngFile() {
  std::vector<uint8_t> b = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A, 0, 0, 0, 13, 'I', 'H', 'D', 'R',
                            0, 0, 0, 4, 0, 0, 0, 4, 8, 2, 0, 0, 0, 1, 2, 3, 4};
  const uint8_t idat[] = {0, 0, 0, 3, 'I', 'D', 'A', 'T', 1, 2, 3, 9, 9, 9, 9};
  const uint8_t iend[] = {0, 0, 0, 0, 'I', 'E', 'N', 'D', 0xAE, 0x42, 0x60, 0x82};
  b.insert(b.end(), std::begin(idat), std::end(idat));
  b.insert(b.end(), std::begin(iend), std::end(iend));
  return b;
}

std::vector<uint8_t> gifFile() {
  std::vector<uint8_t> b = {'G', 'I', 'F', '8', '9', 'a', 2, 0, 2, 0, 0x80, 0, 0, 0, 0, 0, 255, 255, 255};
  b.insert(b.end(), {0x2C, 0, 0, 0, 0, 2, 0, 2, 0, 0, 2, 2, 0x44, 0x01, 0x00, 0x3B});
  return b;
}

std::vector<uint8_t> bmpFile() {
  std::vector<uint8_t> b(54 + 4 * 4 * 3, 0x7F);
  b[0] = 'B', b[1] = 'M';
  storeLE32(&b[2], static_cast<uint32_t>(b.size()));
  storeLE32(&b[6], 0);
  storeLE32(&b[10], 54);
  storeLE32(&b[14], 40);
  return b;
}

std::filesystem::path plantedDrive(const TempDir& dir) {
  const auto image = dir / "drive.img";
  writeDrive(image, 2 << 20, {{"jpg", 64, jpegFile()}, {"png", 1000, pngFile()}, {"gif", 2001, gifFile()},
                               {"bmp", 3000, bmpFile()}}, 5);
  return image;
}

TEST(CarveCli, DriveSearchListsWhatTheGoldenListingHoldsAndSavesThePlantedBytes) {
  TempDir dir;
  const auto image = plantedDrive(dir);
  Cli cli;
  int status = -1;
  const std::string out = cli.run("carve '" + image.string() + "' --whole-drive --all --max-size 1MB 2>/dev/null", &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_EQ(out, sourceText("tests/carving/golden/carve_drive.tsv"));

  const std::string json = cli.run("carve '" + image.string() + "' --whole-drive --types GIF,.bmp --format json 2>/dev/null");
  EXPECT_EQ(json.rfind("[", 0), 0u) << json;
  EXPECT_NE(json.find("\"path\":\"/Root/Images/gif/File1.gif\""), std::string::npos) << json;
  EXPECT_NE(json.find("\"dataExtents\":\"3000+1\""), std::string::npos) << json;
  EXPECT_EQ(json.find("jpg"), std::string::npos) << json;

  const std::string saved = cli.run("carve '" + image.string() + "' --whole-drive --types jpg,png,gif,bmp --out '" +
                                        (dir / "out").string() + "'",
                                    &status);
  EXPECT_EQ(status, 0) << saved;
  EXPECT_NE(saved.find("Saved"), std::string::npos) << saved;
  EXPECT_EQ(test::readFile(dir / "out/Root/Images/jpg/File1.jpg"), jpegFile());
  EXPECT_EQ(test::readFile(dir / "out/Root/Images/png/File1.png"), pngFile());
  EXPECT_EQ(test::readFile(dir / "out/Root/Images/gif/File1.gif"), gifFile());
  EXPECT_EQ(test::readFile(dir / "out/Root/Images/bmp/File1.bmp"), bmpFile());
}

TEST(CarveCli, SizeAndExtensionFiltersNarrowTheListingAndTheSave) {
  // The planted files are 5055 (jpg), 60 (png), 35 (gif) and 102 (bmp) bytes;
  // --max-size keeps its meaning, the size of a file whose length is unknown.
  TempDir dir;
  const auto image = plantedDrive(dir);
  Cli cli;
  int status = -1;
  const std::string out = cli.run("carve '" + image.string() +
                                      "' --whole-drive --all --max-size 1MB --min-file-size 50 --max-file-size 0.2KB "
                                      "2>/dev/null",
                                  &status);
  EXPECT_EQ(status, 0) << out;
  std::vector<std::string> paths;
  std::istringstream lines(out);
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) paths.push_back(line.substr(0, line.find('\t')));
  EXPECT_EQ(paths, (std::vector<std::string>{"/Root", "/Root/Images", "/Root/Images/png", "/Root/Images/png/File1.png",
                                             "/Root/Images/bmp", "/Root/Images/bmp/File1.bmp"}))
      << out;

  const auto to = dir / "out";
  const std::string saved = cli.run("carve '" + image.string() + "' --whole-drive --all --ext JPG --out '" +
                                        to.string() + "'",
                                    &status);
  EXPECT_EQ(status, 0) << saved;
  EXPECT_EQ(test::readFile(to / "Root/Images/jpg/File1.jpg"), jpegFile());
  const auto entries = std::distance(std::filesystem::recursive_directory_iterator(to),
                                     std::filesystem::recursive_directory_iterator());
  EXPECT_EQ(entries, 4) << saved;  // Root, Images, jpg, File1.jpg

  const std::string none = cli.run("carve '" + image.string() + "' --whole-drive --all --ext doc --out '" +
                                       (dir / "none").string() + "'",
                                   &status);
  EXPECT_EQ(status, 1) << none;
  EXPECT_NE(none.find("no file passes the size and name filters"), std::string::npos) << none;
}

TEST(CarveCli, ADestinationWithoutRoomIsRefusedBeforeAnythingIsWritten) {
  // Ten JPEG files of two pages each onto a tmpfs of ten pages: the save used
  // to start, run out of space half-way and leave what it could. It is
  // refused now, as a recovery's save is, with nothing made; with room, every
  // file is saved whole.
  TempDir dir;
  const auto image = dir / "drive.img";
  std::vector<Planted> files;
  for (uint64_t i = 0; i < 10; ++i) files.push_back({"jpg", 64 + 40 * i, jpegFile()});
  writeDrive(image, 2 << 20, files, 5);
  writeFile(dir / "ref.jpg", jpegFile());
  std::filesystem::create_directory(dir / "mnt");
  const std::string mnt = (dir / "mnt").string();
  const char* cli = std::getenv("AMBREL_CLI");
  std::string out;
  if (runCommand("unshare -rm sh -c 'mount -t tmpfs -o size=40k tmpfs \"" + mnt + "\"' 2>&1", &out) != 0)
    GTEST_SKIP() << "no private tmpfs mount here: " << out;
  auto carveOnto = [&](const std::string& size) {
    const std::string script =
        "mount -t tmpfs -o size=" + size + " tmpfs \"$1\" || exit 9; "
        "XDG_DATA_HOME=\"$1/data\" \"$2\" carve \"$3\" --whole-drive --types jpg --out \"$1/out\" 2>&1; "
        "echo \"status $?\"; "
        "find \"$1/out\" -type f 2>/dev/null | sort | while read f; do "
        "if cmp -s \"$f\" \"$4\"; then echo \"whole ${f#$1/}\"; else echo \"not whole ${f#$1/}\"; fi; done";
    std::string result;
    EXPECT_EQ(runCommand("unshare -rm sh -c '" + script + "' sh '" + mnt + "' '" + (cli ? cli : "ambrel-cli") +
                             "' '" + image.string() + "' '" + (dir / "ref.jpg").string() + "'",
                         &result),
              0)
        << result;
    return result;
  };
  out = carveOnto("40k");
  EXPECT_NE(out.find("status 2\n"), std::string::npos) << out;
  EXPECT_NE(out.find("ambrel-cli: ! Not enough free disk space: "), std::string::npos) << out;
  EXPECT_EQ(out.find("whole"), std::string::npos) << out;
  EXPECT_EQ(out.find("Saved"), std::string::npos) << out;

  out = carveOnto("400k");
  EXPECT_NE(out.find("status 0\n"), std::string::npos) << out;
  size_t whole = 0;
  for (size_t at = out.find("\nwhole out/"); at != std::string::npos; at = out.find("\nwhole out/", at + 1)) ++whole;
  EXPECT_EQ(whole, 10u) << out;
  EXPECT_EQ(out.find("not whole"), std::string::npos) << out;
  EXPECT_NE(out.find("Saved " + mnt + "/out: 10 files, " + std::to_string(10 * jpegFile().size()) + " bytes"),
            std::string::npos)
      << out;
}

TEST(CarveCli, VolumeSearchOfABuiltVolume) {
  TempDir dir;
  mkimage::DriveSpec d;
  d.table = mkimage::TableKind::MBR;
  mkimage::PartitionSpec p;
  mkimage::VolumeSpec v;
  v.name = "Cards";
  mkimage::PayloadSpec payload;
  payload.bytes = gifFile();
  v.freePayloads = {payload};
  mkimage::EntrySpec live;
  live.name = "kept.gif";
  live.data = gifFile();
  v.root = {live};
  p.volume = v;
  d.partitions = {p};
  const auto layout = *mkimage::buildImage(d, dir / "mbr.img").partitions[0].volume;
  Cli cli;
  int status = -1;
  const std::string out = cli.run("carve '" + (dir / "mbr.img").string() + "' --volume 1 --types gif 2>/dev/null", &status);
  EXPECT_EQ(status, 0) << out;
  const std::string row = "/Root/Images/gif/File1.gif\tfile";
  ASSERT_NE(out.find(row), std::string::npos) << out;
  EXPECT_NE(out.find("\t" + std::to_string(layout.payloads[0].startBlock) + "+1\t"), std::string::npos) << out;
  EXPECT_EQ(out.find("File2.gif"), std::string::npos) << "the live file is not in free space: " << out;
}

TEST(CarveCli, RefusalsSayWhy) {
  TempDir dir;
  const auto image = plantedDrive(dir);
  Cli cli;
  const std::string img = "'" + image.string() + "'";
  int status = 0;
  std::string out = cli.run("carve " + img + " --whole-drive", &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(out.find("--types jpg,png,... or --all"), std::string::npos) << out;
  out = cli.run("carve " + img + " --whole-drive --all --max-size 11GB", &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(out.find("!Error: Maximum file size to recover can not be more than 10 GB"), std::string::npos) << out;
  out = cli.run("carve " + img + " --whole-drive --all --max-size 2.5MB", &status);
  EXPECT_NE(out.find("Please enter numeric value in maximum file size field"), std::string::npos) << out;
  out = cli.run("carve " + img + " --whole-drive --all --range 60%-20%", &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(out.find("--range"), std::string::npos) << out;
  out = cli.run("carve " + img + " --whole-drive --types xyz", &status);
  EXPECT_NE(out.find("no file type with the extension \"xyz\""), std::string::npos) << out;
  out = cli.run("carve " + img + " --all", &status);
  EXPECT_EQ(status, 2);
  EXPECT_NE(out.find("--whole-drive"), std::string::npos) << out;
  out = cli.run("carve " + img + " --whole-drive --volume 1 --all", &status);
  EXPECT_NE(status, 0);
}

TEST(CarveCli, SignaturesListAddAndRemove) {
  Cli cli;
  int status = -1;
  std::string out = cli.run("signatures 2>/dev/null", &status);
  EXPECT_EQ(status, 0);
  EXPECT_NE(out.find("Images\tJPEG\tjpg\tFFD8FF\t0\t3\tcheckJPGFileAtBlock:sig:\tyes"), std::string::npos) << out;
  EXPECT_NE(out.find("Camera RAW\tCanon CR2\tcr2\t49492A0010000000\t0\t8\t"), std::string::npos) << out;
  out = cli.run("signatures --json 2>/dev/null", &status);
  EXPECT_EQ(status, 0);
  EXPECT_NE(out.find("\"category\":\"Images\""), std::string::npos) << out;

  out = cli.run("signatures add --category Mine --name 'My type' --extension myt --signature 4D7954 --offset 0", &status);
  EXPECT_EQ(status, 0) << out;
  EXPECT_TRUE(std::filesystem::exists(cli.home / "data/ambrel/Signature.dat"));
  out = cli.run("signatures 2>/dev/null", &status);
  EXPECT_NE(out.find("Mine\tMy type\tmyt\t4D7954\t0\t0\t(none)\tno"), std::string::npos) << out;
  out = cli.run("signatures add --category Other --name X --extension x --signature 4d7954 --offset 0", &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find("!Error: This signature/offset pair already exists in file type \"My type\" under category \"Mine\"."),
            std::string::npos)
      << out;
  out = cli.run("signatures add --category Other --name X", &status);
  EXPECT_NE(out.find("!Error: Extension cannot be nil"), std::string::npos) << out;

  out = cli.run("signatures remove --category Images --name JPEG", &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find("a pre-installed file type cannot be removed"), std::string::npos) << out;
  out = cli.run("signatures remove --category Mine", &status);
  EXPECT_EQ(status, 1);
  EXPECT_NE(out.find("only once it holds no file types"), std::string::npos) << out;
  out = cli.run("signatures remove --category Mine --name 'My type'", &status);
  EXPECT_EQ(status, 0) << out;
  out = cli.run("signatures remove --category Mine", &status);
  EXPECT_EQ(status, 0) << out;
  out = cli.run("signatures 2>/dev/null", &status);
  EXPECT_EQ(out.find("Mine"), std::string::npos) << out;
}

}  // namespace
}  // namespace ambrel::test
