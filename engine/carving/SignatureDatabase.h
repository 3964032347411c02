#pragma once
// The signature database as the "sig sel" page and the add dialog use it:
// where its files live, loading and the two-step reload, adding and removing
// file types with their checks and messages, marking, and the choice of the
// file types and size limit for a search. The engine decides and words the
// alerts; a front end shows them and sets its buttons from SigButtons.
//
// Files: the installed, read-only Signature.dat and Signature_backup.dat in
// the resource folder (<prefix>/share/ambrel, or the build tree's resources
// folder, or $AMBREL_RESOURCE_DIR); the working database is the user's copy,
// $XDG_DATA_HOME/ambrel/Signature.dat, made on the first write; until then
// the installed Signature.dat is read. The backup is always the installed one.
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "carving/Sig.h"

namespace ambrel {

struct SignatureFiles {
  std::string resourceDir;  // holds the installed Signature.dat and Signature_backup.dat
  std::string userCopy;     // the user's working database ("" when there is no home)

  std::string installed() const { return resourceDir + "/Signature.dat"; }
  std::string backup() const { return resourceDir + "/Signature_backup.dat"; }
  // What "Signature" type "dat" reads: the user's copy once it exists.
  std::string working() const;
};

// The files as this process finds them (environment, then install layout).
SignatureFiles signatureFiles();

// Archives a signature tree into the database format and back. nullopt with
// `error` set when the bytes are no database.
std::vector<uint8_t> archiveSigRoot(const SigNode::ChildArray& root);
std::optional<SigNode::ChildArray> unarchiveSigRoot(std::span<const uint8_t> bytes, std::string& error);
std::optional<SigNode::ChildArray> loadSigRootFile(const std::string& path, std::string& error);

// The state of the page's controls after a load.
struct SigButtons {
  bool selectAll = false, deselectAll = false, remove = false, add = false, next = false;
  bool loadFileTypes = true;
};

struct SigAlert {
  std::string title;
  std::string message;
  std::vector<std::string> buttons{"OK"};
};

// The five fields of the add dialog.
struct NewSigInput {
  std::string category, name, extension, signature, offset;
};

// What the "Next" button of the page decides.
struct SigSelection {
  enum class Outcome {
    Nothing,           // scan type neither 2 nor 3
    AskNoSignatures,   // journaled volume, nothing selected: OK proceeds without a signature search, Go Back stays
    Refused,           // an alert; stay on the page
    Proceed,           // search with sigSelArray, userSize and rawSearchMode
  } outcome = Outcome::Nothing;
  SigAlert alert;
  std::vector<SigNode*> sigSelArray;  // the selected file-type nodes, tree order
  uint64_t userSize = 0;
  int32_t rawSearchMode = 0;  // 1 journaled volume, 2 volume, 3 drive
};

class SignatureDatabase {
 public:
  explicit SignatureDatabase(SignatureFiles files = signatureFiles());

  // loadSigData: the backup once the reload count is above 1, else the
  // working database. Missing or unreadable gives the empty tree.
  SigButtons loadSigData();
  // reloadSigData: count + 1, then load; the placeholder text says what next.
  SigButtons reloadSigData();

  SigNode::ChildArray& sigRootArray() { return sigRootArray_; }
  const std::string& emptySigNodeText() const { return emptySigNodeText_; }
  int32_t sigDataLoadCount() const { return sigDataLoadCount_; }
  const std::string& lastLoadError() const { return lastLoadError_; }
  const SignatureFiles& files() const { return files_; }

  // addNewSigOKClicked: the checks in order; the first failure as an alert
  // (nothing changed), else the file type added and the database written.
  std::optional<SigAlert> addNewSigOKClicked(const NewSigInput& input);
  // Whether the remove button is enabled for this node.
  static bool canRemove(const SigNode* node);
  // removeFileType: false when the write failed (the page beeps).
  bool removeFileType(const SigNode* selected);
  void selectAllSig();
  void deselectAllSig();
  // Archives the tree to the user's copy (made with its folder on first use).
  bool writeWorkingDatabase();

  // sigSelNextClicked for a volume of scan type 2 (journaled or not) or a
  // drive (3): the selection, the size field ("maximum file size" and the
  // MB (0) / GB (1) pop-up) and the raw-search mode. userSize is set on the
  // selected records.
  SigSelection sigSelNextClicked(int32_t scanType, bool journaled, const std::string& maxSizeText, int unitIndex);

  // The file-type nodes whose selected is 1, in tree order.
  std::vector<SigNode*> selectedFileTypes() const;

 private:
  SignatureFiles files_;
  SigNode::ChildArray sigRootArray_;
  std::string emptySigNodeText_;
  int32_t sigDataLoadCount_ = 0;
  std::string lastLoadError_;
};

}  // namespace ambrel
