// File types chosen on the command line, and saving what a search found.
#include "cli/CarveShared.h"

#include <fmt/format.h>

#include <cctype>
#include <filesystem>
#include <set>

#include "cli/TerminalText.h"
#include "core/SaveFlow.h"
#include "output/Saver.h"
#include "tree/CheckController.h"

namespace ambrel::cli {

namespace {

std::string lower(std::string s) {
  for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return s;
}

// "20MB", "2GB", "20" (MB): the digits and the pop-up's item (0 MB, 1 GB).
bool parseMaxSize(const std::string& text, std::string& digits, int& unit) {
  std::string t = lower(text);
  unit = 0;
  if (t.size() >= 2 && t.compare(t.size() - 2, 2, "gb") == 0) unit = 1;
  if (t.size() >= 2 && (t.compare(t.size() - 2, 2, "gb") == 0 || t.compare(t.size() - 2, 2, "mb") == 0))
    t.resize(t.size() - 2);
  digits = t;
  return true;
}

}  // namespace

bool selectSignatures(const TypeChoice& choice, int scanType, SignatureDatabase& db, std::vector<const Sig*>& sigs,
                      std::string& error) {
  db.loadSigData();
  if (db.sigRootArray().empty()) {
    error = fmt::format("no signature database could be read ({}); see the signatures command", db.lastLoadError());
    return false;
  }
  db.deselectAllSig();
  if (choice.all) {
    db.selectAllSig();
  } else {
    std::set<std::string> wanted;
    for (size_t from = 0; from <= choice.types.size();) {
      const size_t comma = choice.types.find(',', from);
      const std::string t = lower(choice.types.substr(from, comma == std::string::npos ? std::string::npos : comma - from));
      if (!t.empty()) wanted.insert(t[0] == '.' ? t.substr(1) : t);
      if (comma == std::string::npos) break;
      from = comma + 1;
    }
    std::set<std::string> matched;
    for (auto& category : db.sigRootArray())
      for (const auto& child : category->children())
        if (child->sig && wanted.count(lower(child->sig->extension))) {
          CheckControllerSig(child.get(), 1).run();
          matched.insert(lower(child->sig->extension));
        }
    for (const auto& t : wanted)
      if (!matched.count(t)) {
        error = fmt::format("no file type with the extension \"{}\" in the database", t);
        return false;
      }
  }

  std::string digits;
  int unit = 0;
  parseMaxSize(choice.maxSize, digits, unit);
  const SigSelection selection = db.sigSelNextClicked(scanType, false, digits, unit);
  if (selection.outcome != SigSelection::Outcome::Proceed) {
    error = fmt::format("{}: {}", selection.alert.title, selection.alert.message);
    return false;
  }
  sigs.clear();
  for (SigNode* n : selection.sigSelArray) sigs.push_back(n->sig.get());
  return true;
}

int saveFoundTree(Volume& volume, CliController& controller, const std::string& out, int status,
                  const char* consequence, const FilteredTree* filter) {
  CheckController(volume.dirRoot.get(), true).run();
  if (filter) unmarkFilteredOut(*volume.dirRoot, *filter);
  if (filter && filter->filter().active() && volume.dirRoot->childrenSelected() == 0) {
    fmt::print(stderr, "ambrel-cli: no file passes the size and name filters\n");
    return 1;
  }
  const DestinationCheck check = checkSaveDestination(*volume.dirRoot, out);
  if (check.refusal) {
    fmt::print(stderr, "ambrel-cli: {}: {} ({} needed, {} free in {})\n", check.refusal->title, check.refusal->message,
               sizeText(check.needed), sizeText(check.info.freeBytes), terminalText(check.probed));
    return 2;
  }
  std::error_code ec;
  if (!std::filesystem::exists(out, ec) && (!std::filesystem::create_directories(out, ec) || ec)) {
    fmt::print(stderr, "ambrel-cli: ! Can not save: the folder {} could not be made: {}\n", terminalText(out),
               ec.message());
    return 2;
  }
  Saver::Options options;
  options.finalAlert = false;
  options.filter = filter;
  Saver saver(*volume.dirRoot, saveSourceOf(volume), &controller, options);
  const SaveResult r = saver.saveFilesAndFolders(out);
  printSaveResult(r, out);
  if (r.failedCreates + r.failedWrites + r.damagedCompressed > 0) status = status ? status : kExitFailed;
  if (r.failedReads && status == kExitDone) status = kExitReadErrors;
  return readOutcome(volume, controller, status, consequence);
}

}  // namespace ambrel::cli
