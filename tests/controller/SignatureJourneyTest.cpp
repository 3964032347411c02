// The signature search's journeys: a mounted volume or a whole drive, the
// file types and size limit, the raw range, the carved files saved; the add
// dialog and the reload of the file types.
#include <fmt/format.h>

#include "carving/Sig.h"
#include "controller/Journey.h"
#include "hfs/Volume.h"

using namespace ambrel;
using namespace ambrel::test;
namespace fs = std::filesystem;

namespace {

constexpr const char* kSteps =
    "1. Select the file type(s) you wish to recover from the below mentioned file type(s) list.\n2. Specify maximum "
    "(approximate) size of deleted/ missing files to be recovered and click on Next button to continue.";

// A bare HFS+ volume with pictures in its free space.
void buildVolumeWithPayloads(const fs::path& image, const std::vector<std::vector<uint8_t>>& payloads) {
  mk::DriveSpec drive;
  drive.table = mk::TableKind::None;
  mk::VolumeSpec vol;
  vol.name = "Camera";
  vol.root = {fileOf("kept.txt", textBytes("still here"))};
  for (const auto& p : payloads) {
    mk::PayloadSpec payload;
    payload.bytes = p;
    vol.freePayloads.push_back(payload);
  }
  drive.volume = vol;
  mk::buildImage(drive, image);
}

class SignatureJourney : public Journey {
 protected:
  SigNode* fileType(const std::string& extension) {
    for (int c = 0; c < app->sigOutlineChildCount(nullptr); ++c) {
      SigNode* category = app->sigOutlineChild(nullptr, c);
      for (int i = 0; i < app->sigOutlineChildCount(category); ++i) {
        SigNode* t = app->sigOutlineChild(category, i);
        if (t->sig && t->sig->extension == extension) return t;
      }
    }
    return nullptr;
  }
  // The carved files of the tree: name -> entry.
  std::map<std::string, HDIR*> carved() {
    std::map<std::string, HDIR*> out;
    std::vector<HDIR*> stack{app->outlineChild(nullptr, 0)};
    while (!stack.empty()) {
      HDIR* e = stack.back();
      stack.pop_back();
      if (e->fileType == kHDIRFile) out[listedPath(*e)] = e;
      for (int i = 0; i < app->outlineChildCount(e); ++i) stack.push_back(app->outlineChild(e, i));
    }
    return out;
  }
};

}  // namespace

TEST_F(SignatureJourney, VolumeSignaturesRawRangeCarveAndSave) {
  const auto red = makePng(40, 30, 10), blue = makePng(64, 64, 200);
  buildVolumeWithPayloads(dir / "camera.img", {red, blue});
  start({}, PlistArray{volumeDictFor(dir / "camera.img", "Camera", false)});
  EXPECT_EQ(app->tableCellText(Table::Volumes, 0, "Volumes"), "Camera");
  EXPECT_EQ(app->tableCellText(Table::Volumes, 0, "File System"), "HFS+");
  EXPECT_EQ(app->tableCellText(Table::Volumes, 0, "Journal"), "");
  app->volumeTableSelectionDidChange(0);
  EXPECT_EQ(ui.selectedRows[Table::Drives], -1);
  app->firstPageNextClicked();
  ASSERT_EQ(ui.page, Page::SigSel);
  EXPECT_EQ(ui.text(Control::SigSelPrompt),
            std::string("Selected volume is not journaled and hence recovery of deleted files from such HFS+ & HFSX "
                        "volumes will be based on raw signature search. To recover deleted files from such volumes:\n") +
                kSteps);
  EXPECT_EQ(ui.titles[Control::SigSelBack], "Back To Volumes");
  EXPECT_EQ(ui.toolTips[Control::SigSelBack], "Back To Volume List");
  EXPECT_TRUE(ui.isEnabled(Control::SigSelNext));
  EXPECT_FALSE(ui.isEnabled(Control::LoadFileTypes));

  // Nothing chosen, then no size, then too much: each refused, the page kept.
  app->sigSelNextClicked("20", 0);
  EXPECT_EQ(ui.lastAlert()->title, "No file type Selected");
  EXPECT_EQ(ui.lastAlert()->message,
            "At least one file type should be selected to recover lost/ deleted files based on signature search.");
  SigNode* png = fileType("png");
  ASSERT_NE(png, nullptr);
  app->sigOutlineSetMark(png, true);
  EXPECT_EQ(png->selected, 1);
  EXPECT_EQ(png->parent->selected, 1);
  app->sigSelNextClicked("", 0);
  EXPECT_EQ(ui.lastAlert()->title, "!Error");
  EXPECT_EQ(ui.lastAlert()->message, "Maximum size to recover cannot be nil");
  app->sigSelNextClicked("11", 1);
  EXPECT_EQ(ui.lastAlert()->message, "Maximum file size to recover can not be more than 10 GB");
  EXPECT_EQ(ui.page, Page::SigSel);

  app->sigSelNextClicked("20", 0);
  ASSERT_EQ(ui.page, Page::RawSlider);
  EXPECT_EQ(app->rawSearchMode(), 2);
  const uint64_t size = fs::file_size(dir / "camera.img");
  EXPECT_EQ(ui.text(Control::RawSliderStartText), "0% 0 KB");
  EXPECT_EQ(ui.text(Control::RawSliderEndText), "100% " + sizeText(size));
  EXPECT_EQ(ui.text(Control::RawSliderSizeText), sizeText(size));
  app->rawSliderChanged(25, 25);
  EXPECT_EQ(ui.text(Control::RawSliderSizeText), "0 KB");
  // Equal positions are refused.
  app->rawSliderNextClicked(25, 25);
  EXPECT_EQ(ui.lastAlert()->title, "! Can not continue");
  EXPECT_EQ(ui.lastAlert()->message,
            "The start position should be less than end position. Please set them accordingly.");
  EXPECT_EQ(ui.page, Page::RawSlider);
  // Back and forth keeps the choice.
  app->rawSliderBackToSigSelClicked();
  EXPECT_EQ(ui.page, Page::SigSel);
  app->sigSelNextClicked("20", 0);

  app->rawSliderNextClicked(0, 100);
  ASSERT_EQ(ui.page, Page::TreeProg);
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  EXPECT_EQ(ui.lastAlert()->title, "Deleted File Scan Completed");
  EXPECT_EQ(ui.lastAlert()->message,
            "The Tree may also contain regular files (which may show in Finder), please match the tree with Finder to "
            "check which files have been deleted");
  EXPECT_EQ(ui.titles[Control::ButtonTreeBackToPartitions], "Back To Drive List");
  EXPECT_GE(sleep.granted.load(), 1);

  // Both pictures carved, whole; nothing else.
  auto files = carved();
  ASSERT_EQ(files.size(), 2u);
  std::vector<uint64_t> sizes;
  for (const auto& [path, e] : files) sizes.push_back(e->dataSize);
  std::sort(sizes.begin(), sizes.end());
  EXPECT_EQ(sizes, (std::vector<uint64_t>{std::min(red.size(), blue.size()), std::max(red.size(), blue.size())}));

  app->outlineViewSetObjectValue(app->outlineChild(nullptr, 0), true);
  saveTo(dir / "out");
  EXPECT_EQ(ui.lastAlert()->title, "Saving Completed");
  std::vector<std::vector<uint8_t>> saved;
  for (const auto& [path, bytes] : filesUnder(dir / "out")) saved.push_back(bytes);
  std::sort(saved.begin(), saved.end());
  std::vector<std::vector<uint8_t>> expected{red, blue};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(saved, expected);

  // Back from the carved tree (answered Ignore) goes to the first page.
  app->treeBackToPartitionsClicked();
  EXPECT_EQ(ui.page, Page::FirstPage);
}

TEST_F(SignatureJourney, WholeDriveSignatureSearchWithinARange) {
  // Pictures in the free space of a partition, found by searching the drive's sectors.
  const auto picture = makePng(50, 20, 90);
  mk::DriveSpec drive;
  drive.table = mk::TableKind::GPT;
  mk::PartitionSpec part;
  mk::VolumeSpec vol;
  vol.name = "Data";
  vol.root = {fileOf("a.txt", textBytes("a"))};
  mk::PayloadSpec payload;
  payload.bytes = picture;
  vol.freePayloads.push_back(payload);
  part.volume = vol;
  drive.partitions.push_back(part);
  const auto layout = mk::buildImage(drive, dir / "drive.img");
  start(PlistArray{driveDictFor(dir / "drive.img")});
  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModeSigSearchClicked();
  ASSERT_EQ(ui.page, Page::SigSel);
  EXPECT_EQ(ui.text(Control::SigSelPrompt), kSteps);
  EXPECT_EQ(ui.titles[Control::SigSelBack], "Back To Drives");
  EXPECT_EQ(ui.toolTips[Control::SigSelBack], "Back To Drive List");
  app->sigOutlineSetMark(fileType("png"), true);
  app->sigSelNextClicked("1", 0);
  ASSERT_EQ(ui.page, Page::RawSlider);
  EXPECT_EQ(app->rawSearchMode(), 3);

  // A range that ends before the picture finds nothing; the whole drive finds it.
  const uint64_t pictureSector = layout.partitions[0].volume->payloads.at(0).sector;
  const auto percentBefore = static_cast<float>(pictureSector * 100 / (fs::file_size(dir / "drive.img") / 512)) - 1;
  ASSERT_GT(percentBefore, 0.0f);
  app->rawSliderNextClicked(0, percentBefore);
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  // The tree page shows before the worker lets go of its hold; a second scan
  // started meanwhile would share that hold.
  ASSERT_TRUE(settle());
  EXPECT_TRUE(carved().empty());
  EXPECT_EQ(ui.titles[Control::ButtonTreeBackToPartitions], "Back To Drives");
  app->treeBackToPartitionsClicked();
  ASSERT_EQ(ui.page, Page::FirstPage);

  app->driveTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->ptModeSigSearchClicked();
  app->sigOutlineSetMark(fileType("png"), true);
  app->sigSelNextClicked("1", 0);
  app->rawSliderNextClicked(0, 100);
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  auto files = carved();
  ASSERT_EQ(files.size(), 1u);
  HDIR* found = files.begin()->second;
  EXPECT_EQ(found->dataSize, picture.size());
  ASSERT_EQ(found->dataExt.size(), 1u);
  EXPECT_EQ(found->dataExt[0].startBlock, pictureSector);
  // Two scans, two holds, none left once the workers are done.
  ASSERT_TRUE(settle());
  EXPECT_GE(sleep.granted.load(), 2);
  EXPECT_EQ(sleep.held.load(), 0);
}

TEST_F(SignatureJourney, JournaledVolumeWithNothingSelectedAsksThenRunsTheDeletedFileSearch) {
  buildVolumeWithPayloads(dir / "j.img", {});
  int searched = 0;
  searchDeletedFiles = [&searched](Volume& volume, AppControllerInterface*) {
    ++searched;
    // What a journal search leaves behind: a tree with what it found.
    volume.btree = std::make_unique<BTreeTableClass>();
    auto root = std::make_unique<HDIR>();
    root->fileType = kHDIRFolder;
    root->fileID = 2;
    root->setFileName("Root");
    auto file = std::make_unique<HDIR>();
    file->fileType = kHDIRFile;
    file->setFileName("deleted.txt");
    root->addChild(std::move(file));
    root->setChildrenCount(1);
    volume.dirRoot = std::move(root);
  };
  start({}, PlistArray{volumeDictFor(dir / "j.img", "Camera", true)});
  EXPECT_EQ(app->tableCellText(Table::Volumes, 0, "Journal"), "Journaled");
  app->volumeTableSelectionDidChange(0);
  app->firstPageNextClicked();
  ASSERT_EQ(ui.page, Page::SigSel);
  EXPECT_EQ(ui.text(Control::SigSelPrompt).rfind(kSteps), ui.text(Control::SigSelPrompt).size() - std::string(kSteps).size());

  ui.answer("No file type Selected", 1);  // Go Back
  app->sigSelNextClicked("20", 0);
  EXPECT_EQ(ui.lastAlert()->message,
            "Do you want to proceed recovering deleted files without signature search option enabled?");
  EXPECT_EQ(ui.lastAlert()->buttons, (std::vector<std::string>{"OK", "Go Back"}));
  EXPECT_EQ(ui.page, Page::SigSel);
  EXPECT_EQ(searched, 0);

  app->sigSelNextClicked("20", 0);  // OK
  ASSERT_EQ(ui.page, Page::TreeProg);
  ASSERT_TRUE(runUntil([this] { return page() == Page::Tree; }));
  EXPECT_EQ(searched, 1);
  EXPECT_EQ(app->rawSearchMode(), 0);
  EXPECT_EQ(ui.lastAlert()->title, "Deleted File Scan Completed");
  ASSERT_EQ(carved().size(), 1u);
  EXPECT_EQ(carved().begin()->second->fileName(), "deleted.txt");
}

TEST_F(SignatureJourney, AddingAndRemovingAFileTypeAndReloadingTheList) {
  buildVolumeWithPayloads(dir / "v.img", {});
  start({}, PlistArray{volumeDictFor(dir / "v.img", "Camera", false)});
  app->volumeTableSelectionDidChange(0);
  app->firstPageNextClicked();
  app->addNewSig();
  EXPECT_TRUE(ui.addSigDialogOpen);
  // Refused: the dialog stays open with the alert's words.
  app->addNewSigOKClicked({"Mine", "Thing", ".thg", "CAFE", "0"});
  EXPECT_EQ(ui.lastAlert()->title, "!Error");
  EXPECT_EQ(ui.lastAlert()->message, "Please remove dot \".\" from the beggining of the extension");
  EXPECT_TRUE(ui.addSigDialogOpen);
  app->addNewSigOKClicked({"Mine", "Thing", "thg", "CAFEBABE0102", "16"});
  EXPECT_FALSE(ui.addSigDialogOpen);
  SigNode* added = fileType("thg");
  ASSERT_NE(added, nullptr);
  EXPECT_EQ(added->sig->header, 0xCAFEBABE0102u);
  EXPECT_EQ(app->sigOutlineText(added), "Thing");
  EXPECT_TRUE(fs::exists(sigFiles.userCopy));
  // A pre-installed type cannot be removed; the added one can.
  app->sigOutlineSelectionDidChange(fileType("png"));
  EXPECT_FALSE(ui.isEnabled(Control::RemoveFileType));
  app->removeFileType();
  EXPECT_NE(fileType("png"), nullptr);
  app->sigOutlineSelectionDidChange(added);
  EXPECT_TRUE(ui.isEnabled(Control::RemoveFileType));
  app->removeFileType();
  EXPECT_EQ(fileType("thg"), nullptr);

  // With both files unreadable, the list is empty and says what to do.
  std::filesystem::remove(sigFiles.userCopy);
  writeFile(dir / "share" / "Signature.dat", {1, 2, 3});
  writeFile(dir / "share" / "Signature_backup.dat", {4, 5, 6});
  app->sigSelBackToVolumesClicked();
  EXPECT_EQ(ui.page, Page::FirstPage);
  app->volumeTableSelectionDidChange(0);
  app->firstPageNextClicked();
  EXPECT_EQ(app->sigOutlineChildCount(nullptr), 1);  // the placeholder row
  EXPECT_EQ(app->sigOutlineText(nullptr), "No file types shown here? Click on \"Load File Types\" button");
  EXPECT_TRUE(ui.isEnabled(Control::LoadFileTypes));
  EXPECT_FALSE(ui.isEnabled(Control::SigSelNext));
  app->reloadSigData();
  EXPECT_EQ(app->sigOutlineText(nullptr),
            "Still no file types showing here. Click on \"Load File Types\" button to reload backup.");
  app->reloadSigData();
  EXPECT_EQ(app->sigOutlineText(nullptr), "Still no file types showing here. Contact support.");
}
