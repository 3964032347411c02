// `signatures`: list the signature database; `signatures add` and
// `signatures remove` edit the user's copy with the add dialog's checks.
#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <functional>

#include "base/PlistValue.h"
#include "carving/SignatureDatabase.h"
#include "carving/Validator.h"

namespace ambrel::cli {

namespace {

struct SignaturesOptions {
  bool json = false;
  NewSigInput add;
  std::string removeCategory, removeName;
};

std::string hexOf(const Sig& s) {
  std::string out;
  for (int i = s.headerLength - 1; i >= 0 && i < 8; --i) out += fmt::format("{:02X}", (s.header >> (8 * i)) & 0xFF);
  return out;
}

// The working database loaded, or nullptr with the reason printed.
bool load(SignatureDatabase& db) {
  db.loadSigData();
  if (!db.sigRootArray().empty()) return true;
  fmt::print(stderr, "ambrel-cli: no signature database could be read ({})\n", db.lastLoadError());
  return false;
}

int runList(const SignaturesOptions& opt) {
  SignatureDatabase db;
  if (!load(db)) return 2;
  if (opt.json) {
    PlistArray out;
    for (const auto& category : db.sigRootArray()) {
      PlistArray types;
      for (const auto& child : category->children()) {
        if (!child->sig) continue;
        const Sig& s = *child->sig;
        types.push_back(PlistDict{{"name", s.software},
                                  {"extension", s.extension},
                                  {"signature", hexOf(s)},
                                  {"offset", uint64_t{s.offset}},
                                  {"code", uint64_t{s.typeOfFile}},
                                  {"validator", validatorName(s.typeOfFile)},
                                  {"validatorBuilt", s.typeOfFile == 0 || validatorIsBuilt(s.typeOfFile)},
                                  {"preInstalled", s.preInstalled},
                                  {"selected", child->selected == 1},
                                  {"defaultSize", uint64_t{s.defaultSize}},
                                  {"skipSize", uint64_t{s.skipSize}}});
      }
      out.push_back(PlistDict{{"category", category->category}, {"fileTypes", types}});
    }
    fmt::print("{}\n", PlistValue(out).toJson());
    return 0;
  }
  fmt::print("category\tname\textension\tsignature\toffset\tcode\tvalidator\tpreInstalled\n");
  for (const auto& category : db.sigRootArray())
    for (const auto& child : category->children()) {
      if (!child->sig) continue;
      const Sig& s = *child->sig;
      const char* name = validatorName(s.typeOfFile);
      std::string validator = *name ? name : "(none)";
      if (*name && !validatorIsBuilt(s.typeOfFile)) validator += " (not built yet)";
      fmt::print("{}\t{}\t{}\t{}\t{}\t{}\t{}\t{}\n", category->category, s.software, s.extension, hexOf(s), s.offset,
                 s.typeOfFile, validator, s.preInstalled ? "yes" : "no");
    }
  fmt::print(stderr, "Working database: {}\n", db.files().working());
  return 0;
}

int runAdd(const SignaturesOptions& opt) {
  SignatureDatabase db;
  if (!load(db)) return 2;
  if (auto alert = db.addNewSigOKClicked(opt.add)) {
    fmt::print(stderr, "ambrel-cli: {}: {}\n", alert->title, alert->message);
    return 1;
  }
  // The dialog does not report a failed write; a command line must.
  SignatureDatabase check(db.files());
  check.loadSigData();
  bool there = false;
  for (const auto& c : check.sigRootArray())
    for (const auto& child : c->children())
      if (c->category == opt.add.category && child->sig && child->sig->software == opt.add.name) there = true;
  if (!there) {
    fmt::print(stderr, "ambrel-cli: the database could not be written to {}\n", db.files().userCopy);
    return 1;
  }
  fmt::print("Added \"{}\" under \"{}\" to {}\n", opt.add.name, opt.add.category, db.files().userCopy);
  return 0;
}

int runRemove(const SignaturesOptions& opt) {
  SignatureDatabase db;
  if (!load(db)) return 2;
  const SigNode* target = nullptr;
  for (const auto& c : db.sigRootArray()) {
    if (c->category != opt.removeCategory) continue;
    if (opt.removeName.empty()) {
      target = c.get();
      break;
    }
    for (const auto& child : c->children())
      if (child->sig && child->sig->software == opt.removeName) target = child.get();
    if (target) break;
  }
  if (!target) {
    fmt::print(stderr, "ambrel-cli: no {} in the database\n",
               opt.removeName.empty() ? fmt::format("category \"{}\"", opt.removeCategory)
                                      : fmt::format("file type \"{}\" under \"{}\"", opt.removeName, opt.removeCategory));
    return 1;
  }
  if (!SignatureDatabase::canRemove(target)) {
    fmt::print(stderr, "ambrel-cli: {}\n",
               target->sig ? "a pre-installed file type cannot be removed"
                           : "a category can be removed only once it holds no file types");
    return 1;
  }
  if (!db.removeFileType(target)) {
    fmt::print(stderr, "ambrel-cli: the database could not be written to {}\n", db.files().userCopy);
    return 1;
  }
  fmt::print("Removed from {}\n", db.files().userCopy);
  return 0;
}

}  // namespace

void registerSignatureCommands(CLI::App& app, std::function<int()>& run) {
  static SignaturesOptions opt;
  auto* cmd = app.add_subcommand("signatures", "List the signature database, or add and remove file types");
  cmd->add_flag("--json", opt.json, "Print JSON instead of TSV");
  cmd->callback([&run] {
    if (!run) run = [] { return runList(opt); };
  });

  auto* add = cmd->add_subcommand("add", "Add a file type to your copy of the database");
  add->add_option("--category", opt.add.category, "Category (an existing one, or a new one)");
  add->add_option("--name", opt.add.name, "File type name");
  add->add_option("--extension", opt.add.extension, "Extension, without the dot");
  add->add_option("--signature", opt.add.signature, "Signature bytes in hex (at most 8 bytes)");
  add->add_option("--offset", opt.add.offset, "Offset of the signature in a block (0 to 1024)");
  add->callback([&run] { run = [] { return runAdd(opt); }; });

  auto* remove = cmd->add_subcommand("remove", "Remove a file type you added, or an empty category");
  remove->add_option("--category", opt.removeCategory, "Category")->required();
  remove->add_option("--name", opt.removeName, "File type name (none: the category itself)");
  remove->callback([&run] { run = [] { return runRemove(opt); }; });
}

}  // namespace ambrel::cli
