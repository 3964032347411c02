#pragma once
// The recovery report: every file a save kept, with its dates, where its
// bytes lie on the drive, its MD5 and SHA-1 and where its record was found,
// then what the scan and the save met. Written as DFXML, file objects as the
// save goes, so that a large save costs no memory for it.
#include <cstdint>
#include <cstdio>
#include <string>

#include "output/Saver.h"

namespace ambrel {

class Volume;

class RecoveryReport {
 public:
  // Opens `path` (replacing it) and writes the report's head; ok() says
  // whether that worked, error() why not.
  RecoveryReport(const std::string& path, const Volume& volume, const std::string& commandLine);
  ~RecoveryReport();
  RecoveryReport(const RecoveryReport&) = delete;
  RecoveryReport& operator=(const RecoveryReport&) = delete;

  bool ok() const { return out_ != nullptr && error_.empty(); }
  const std::string& error() const { return error_; }

  // For Saver::Options::onSaved: one file object, hashed from what was saved.
  void add(const SavedFile& file);
  // The scan log (read errors, damaged nodes, bridged chains, notes) and
  // the save's problems; closes the file. False when writing failed.
  bool finish(const SaveResult& result);

  uint64_t filesListed() const { return files_; }

 private:
  // The "._name" file beside a saved file: its own object, hashed on its own.
  void addSidecar(const SavedFile& file);
  void byteRuns(const HDIR& entry, std::span<const Extent> extents, uint64_t size, const char* facet);

  std::FILE* out_ = nullptr;
  std::string path_;
  std::string error_;
  const Volume& volume_;
  uint64_t files_ = 0;
};

}  // namespace ambrel
