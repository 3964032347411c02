#pragma once
// The size and name filters the tree, recover, carve and deleted commands share.
#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <vector>

#include "tree/EntryFilter.h"

namespace ambrel::cli {

struct FilterChoice {
  std::string minSize, maxSize;
  std::vector<std::string> names;
  std::string extensions;
  bool matchCase = false;
};

// Adds --name, --ext and --match-case, and the size range under the option
// names given (carve's --max-size already means something else).
void addFilterOptions(CLI::App& command, FilterChoice& choice, const std::string& minOption,
                      const std::string& maxOption);

// The filter chosen, or nullopt with `error` set (a message for stderr).
std::optional<EntryFilter> filterFromChoice(const FilterChoice& choice, const std::string& minOption,
                                            const std::string& maxOption, std::string& error);

}  // namespace ambrel::cli
