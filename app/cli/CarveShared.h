#pragma once
// What the carve and deleted commands share: the file types chosen on the
// command line, and saving a found tree under a folder.
#include <string>
#include <vector>

#include "carving/SignatureDatabase.h"
#include "cli/CliController.h"
#include "hfs/Volume.h"
#include "tree/EntryFilter.h"

namespace ambrel::cli {

struct TypeChoice {
  std::string types;  // "jpg,png,..."
  bool all = false;
  std::string maxSize = "20MB";
};

// Loads the database into `db` and selects the chosen types; `sigs` point
// into `db`. False with `error` set (a message for stderr) when the choice
// cannot be made. scanType: 2 a volume, 3 a whole drive.
bool selectSignatures(const TypeChoice& choice, int scanType, SignatureDatabase& db, std::vector<const Sig*>& sigs,
                      std::string& error);

// Saves the whole found tree under `out` with the saver, printing its
// summary; the command's exit status from `status` and the save's failures.
// With a filter, only what it keeps.
int saveFoundTree(Volume& volume, CliController& controller, const std::string& out, int status,
                  const char* consequence, const FilteredTree* filter = nullptr);

}  // namespace ambrel::cli
