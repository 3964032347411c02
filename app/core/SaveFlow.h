#pragma once
// What every front end does around a save and after a scan, kept in one
// place so that the window and the command line refuse, save and report
// alike.
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "core/UserInterface.h"
#include "output/Saver.h"

namespace ambrel {

class Volume;

struct DestinationCheck {
  // Set when the save must not start: the alert to show.
  std::optional<Alert> refusal;
  DestinationInfo info;
  // Bytes the marked entries take there (whole allocation units, resource
  // fork sidecars included), and the folder that was asked.
  uint64_t needed = 0;
  std::string probed;
};

// Whether `destination`, or the nearest existing folder above it where it
// would be made, is a folder with room and writable. The space counted is what the save will
// write, not the files' sizes: a check that passes must not leave a save out
// of room half-way. Equal is enough.
DestinationCheck checkSaveDestination(const HDIR& root, const std::string& destination,
                                      const FilteredTree* filter = nullptr);

// What a finished tree scan leaves to say besides its read errors: entries
// listed differently from what they are, blocks left out.
std::vector<std::string> scanNotes(const Volume& volume);

}  // namespace ambrel
