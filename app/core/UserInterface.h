#pragma once
// What the application controller asks of a front end. The controller decides
// everything a page shows; a front end only draws it and hands the user's
// clicks back as calls on AppController. Every call here is made on the main
// thread. The Qt window implements it with widgets, the tests with a script.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ambrel {

class HDIR;
class SigNode;

// The wizard's pages: one state of the controller each.
enum class Page { FirstPage, PTMode, PTList, PTScanProg, PTScanList, TreeScanMode, TreeProg, Tree, SigSel, RawSlider };
// The page's tab identifier ("first page", "PT list", ...).
const char* pageIdentifier(Page page);

// Buttons, fields, bars and indicators the controller sets. Names follow the
// controls they stand for; the page each lives on is the prefix or the comment.
enum class Control {
  // "first page"
  FirstPageNext,
  OpenScanInfoButton,
  // "PT list"
  PtListGoBackToScanForPT,  // the "scan for partitions instead" choice
  PtListNext,
  PtListBackToDrives,
  // "PT scan prog"
  VolumeScanBar,
  VolumeScanIndicator,
  PleaseWaitForValidatingVolumeTextField,
  VolumeScanSubTaskTimeField,
  VolumeScanTimeRemainingField,
  VolumeScanStop,
  // "PT scan list"
  VolumeScanListNext,
  PtScanListBackToDrives,
  // "Tree prog"
  TreeProgBar,
  TreeProgIndicator,
  TreeProgStatusField,
  TreeProgTimeRemainingField,
  TreeProgPercentField,
  TreeProgSizeField,
  TreeProgEntriesField,
  TreeProgFoldersField,
  TreeProgFilesField,
  TreeProgDataField,
  StopTree,
  // "Tree"
  ButtonTreeBackToPartitions,
  SaveButton,
  StopSaveButton,
  SaveScanButton,
  PreviewButton,
  TextFieldTreeStatus,
  TextFieldSavedData,
  TextFieldMarkedData,
  TextFieldTreeTotals,  // "%@ in %@ Files" of the whole tree
  ProgressTree,
  FindField,
  FindTextField,
  FindProgress,
  MarkAllButton,
  UnmarkAllButton,
  NextButton,
  PrevButton,
  // The tree page's filter fields and what they show.
  FilterMinSizeField,
  FilterMaxSizeField,
  FilterNameField,
  FilterExtensionField,
  FilterApplyButton,
  FilterClearButton,
  TextFieldFilterStatus,
  // "sig sel" and the add dialog
  SigSelPrompt,
  SigSelBack,
  SigSelNext,
  SelectAllSig,
  DeselectAllSig,
  RemoveFileType,
  AddNewSig,
  LoadFileTypes,
  // "Raw slider"
  RawSliderStartText,
  RawSliderEndText,
  RawSliderSizeText,
  RawSliderNext,
  RawSliderBack,
  // The preview window
  PreviewFileName,
  PreviewText,
  MovieName,
  MovieStatus,
  MovieSizeLoaded,
  MovieDuration,
};

// Tables whose rows the controller serves (AppController::tableRowCount and
// tableCellText).
enum class Table { Drives, Volumes, Partitions, FoundVolumes, PartitionScanList };

// Pages of the preview window.
enum class PreviewPage { Text, Image, Movie };

struct Alert {
  std::string title;
  std::string message;
  std::vector<std::string> buttons{"OK"};  // the first is the default
};

// An open, save or folder panel.
struct FilePanel {
  std::string prompt;              // the confirm button's title ("Save"); empty: the panel's own
  std::string requiredExtension;   // "asi": only such files, and a saved name gets it
  std::string proposedName;        // save panels
  bool hideExtension = false;
  bool canCreateFolders = false;
};

// A movie or sound made from data in memory, as far as the front end could.
struct MovieInfo {
  bool playable = false;
  std::string duration;  // the player's duration text, e.g. "0:01:05.3"
};

class UserInterface {
 public:
  virtual ~UserInterface() = default;

  virtual void showPage(Page page) = 0;
  virtual void setTitle(Control control, const std::string& title) = 0;
  virtual void setToolTip(Control control, const std::string& toolTip) = 0;
  virtual void setEnabled(Control control, bool enabled) = 0;
  virtual void setText(Control control, const std::string& text) = 0;
  // A progress bar: its range, its value, and whether it only shows activity.
  virtual void setBar(Control bar, double min, double max, double value, bool indeterminate) = 0;
  // A busy indicator.
  virtual void setAnimating(Control indicator, bool on) = 0;

  // Tables read their rows back from the controller.
  virtual void reloadTable(Table table) = 0;
  virtual void scrollTableToEnd(Table table) = 0;
  // Selects a row (-1: none) without calling back into the controller.
  virtual void selectTableRow(Table table, int row) = 0;

  // The recovered tree's outline (served by AppController::outline*).
  virtual void reloadOutline() = 0;
  virtual void reloadOutlineItem(const HDIR* item, bool children) = 0;
  virtual void expandOutlineItem(const HDIR* item) = 0;
  // Expands the item's ancestors from the top down, selects its row and
  // scrolls it into view.
  virtual void revealOutlineItem(const HDIR* item) = 0;

  // The signature tree of "sig sel" (served by AppController::sigOutline*).
  virtual void reloadSigOutline() = 0;
  virtual void reloadSigOutlineItem(const SigNode* item) = 0;
  // The add-file-type dialog: shown with its five fields emptied, or closed.
  virtual void showAddSigDialog() = 0;
  virtual void closeAddSigDialog() = 0;

  // A modal alert; returns the index of the button chosen.
  virtual int alert(const Alert& alert) = 0;
  // Modal panels; nullopt when cancelled.
  virtual std::optional<std::string> runOpenPanel(const FilePanel& panel) = 0;
  virtual std::optional<std::string> runSavePanel(const FilePanel& panel) = 0;
  virtual std::optional<std::string> runFolderPanel(const FilePanel& panel) = 0;
  virtual void beep() = 0;

  // Ends the application (the front end leaves its event loop).
  virtual void terminate() = 0;
  virtual void bringToFront() = 0;
  // Puts the main window back to its first size and centres it.
  virtual void restoreInitialWindowFrame() = 0;

  // The preview window. The kinds of files the front end can show come from
  // its own decoders (extensions, lower case, without the dot).
  virtual std::vector<std::string> imageFileTypes() = 0;
  virtual std::vector<std::string> movieFileTypes() = 0;
  // Brings the window to the front with the name and the icon of the
  // extension, its views emptied and any movie stopped and dropped.
  virtual void showPreviewWindow(const std::string& name, const std::string& extension) = 0;
  virtual void showPreviewLoading() = 0;
  virtual void showPreviewPage(PreviewPage page) = 0;
  // Shows the image scaled to fit; false when the data is no image it can read.
  virtual bool showPreviewImage(const std::vector<uint8_t>& data) = 0;
  // Makes a player for the data; `name` ("abc.mp3") tells the format.
  virtual MovieInfo showPreviewMovie(const std::vector<uint8_t>& data, const std::string& name) = 0;
  // A sound's poster picture (an ID3 tag's), scaled down to 100 x 100 points when larger.
  virtual void showPreviewPoster(const std::vector<uint8_t>& picture, const std::string& mimeType) = 0;
  virtual void closePreviewWindow() = 0;
  virtual bool previewWindowVisible() const = 0;
};

}  // namespace ambrel
