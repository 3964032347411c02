#pragma once
// A controller driven by the scripted front end over image-builder drives:
// the test's own thread is the main thread and runs the event loop.
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "ImageBuilder.h"
#include "controller/ScriptedUi.h"
#include "core/AppController.h"
#include "support/BuiltEntries.h"
#include "support/TempDir.h"

namespace ambrel::test {

namespace mk = ambrel::mkimage;

// Counts the holds asked for and those still held.
class CountingSleep : public SleepInhibitor {
 public:
  std::unique_ptr<SleepHold> inhibit(const std::string& why) override;
  std::atomic<int> granted{0};
  std::atomic<int> held{0};
};

// A small valid PNG (zlib-compressed rows, CRCs).
std::vector<uint8_t> makePng(uint32_t width, uint32_t height, uint8_t shade);

// A drive dictionary as the drive list holds it, for an image file.
PlistDict driveDictFor(const std::filesystem::path& image);
// A mounted volume's dictionary for an image of a bare volume.
PlistDict volumeDictFor(const std::filesystem::path& image, const std::string& name, bool journaled);

class Journey : public ::testing::Test {
 protected:
  Journey();
  ~Journey() override;

  // Starts a controller whose drive list holds these.
  void start(PlistArray drives, PlistArray volumes = {});
  // Runs the main loop until done() or the time is up.
  bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout = std::chrono::seconds(120));
  // Runs the loop until no worker is left.
  bool settle();
  Page page() const { return app->page(); }

  // From the first page to the "Tree" page of a drive's first partition.
  void scanFirstPartition(bool advanced = false);
  // The entry at "/"-separated names under the root ("" is the root).
  HDIR* entry(const std::string& path) const;
  // Marks, answers the save's questions with `destination`, and waits for the end.
  void saveTo(const std::filesystem::path& destination);

  TempDir dir;
  EventLoop loop;
  ScriptedUi ui;
  CountingSleep sleep;
  SignatureFiles sigFiles;
  std::unique_ptr<AppController> app;
  std::function<void(Volume&, AppControllerInterface*)> searchDeletedFiles;
};

}  // namespace ambrel::test
