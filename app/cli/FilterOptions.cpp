#include "cli/FilterOptions.h"

#include <fmt/format.h>

namespace ambrel::cli {

void addFilterOptions(CLI::App& command, FilterChoice& choice, const std::string& minOption,
                      const std::string& maxOption) {
  command.add_option(minOption, choice.minSize, "Only files of at least this size: 500KB, 20MB, 2GB (1 KB = 1000 bytes)");
  command.add_option(maxOption, choice.maxSize, "Only files of at most this size: 500KB, 20MB, 2GB (1 KB = 1000 bytes)");
  command.add_option("--name", choice.names,
                     "Only files whose name matches this shell pattern, such as 'IMG_*' (repeatable: any may match)");
  command.add_option("--ext", choice.extensions, "Only files with one of these extensions: jpg,pdf");
  command.add_flag("--match-case", choice.matchCase, "Names and patterns match only in the same case");
}

std::optional<EntryFilter> filterFromChoice(const FilterChoice& choice, const std::string& minOption,
                                            const std::string& maxOption, std::string& error) {
  EntryFilter f;
  const std::pair<const std::string*, const std::string*> sizes[] = {{&choice.minSize, &minOption},
                                                                      {&choice.maxSize, &maxOption}};
  for (const auto& [text, option] : sizes) {
    if (text->empty()) continue;
    auto bytes = parseSizeText(*text);
    if (!bytes) {
      error = fmt::format("{} \"{}\" is not a size; write it as 1500, 500KB, 20MB or 2GB", *option, *text);
      return std::nullopt;
    }
    (text == &choice.minSize ? f.minSize : f.maxSize) = bytes;
  }
  if (f.minSize && f.maxSize && *f.minSize > *f.maxSize) {
    error = fmt::format("{} {} is above {} {}: no file could pass", minOption, choice.minSize, maxOption,
                        choice.maxSize);
    return std::nullopt;
  }
  for (const auto& p : choice.names) {
    if (p.empty()) {
      error = "--name needs a pattern";
      return std::nullopt;
    }
    f.names.push_back(p);
  }
  if (!choice.extensions.empty()) {
    f.extensions = parseExtensionList(choice.extensions);
    if (f.extensions.empty()) {
      error = fmt::format("--ext \"{}\" names no extension; write it as jpg,pdf", choice.extensions);
      return std::nullopt;
    }
  }
  f.matchCase = choice.matchCase;
  return f;
}

}  // namespace ambrel::cli
