#pragma once
// Faults injected under a drive's positioned reads, so that tests can show
// what each kind of damage costs every read path: chosen sectors that fail
// with EIO, a drive that ends early, and a drive that disappears. A DMedia
// given a table reads through it; without one nothing changes but a null
// check.
#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ambrel {

class SectorFaults {
 public:
  enum class Kind {
    IOError,  // reads of these sectors fail with EIO
    Short,    // the drive ends before these sectors: reads stop there
    Vanish,   // the first read reaching one of these sectors loses the drive
  };

  // Marks sectors [first, first + count). Set the table up before reads
  // start; afterwards it may be consulted from several threads at once.
  void add(Kind kind, uint64_t first, uint64_t count = 1);
  // The drive is lost once this many more reads have been made.
  void vanishAfterReads(uint64_t reads);
  // The error every read of a lost drive fails with: ENXIO by default; EIO
  // is what some drives give, leaving it to the reader to notice the loss.
  void setVanishError(int error) { vanishError_ = error; }
  // A read that reaches a bad sector from before it returns, by default, the
  // bytes before it (as the kernel returns a short count); when set, the
  // whole read fails instead.
  void setWholeReadFails(bool value) { wholeReadFails_ = value; }

  ssize_t pread(int fd, void* buffer, size_t bytes, off_t offset);

  bool vanished() const { return vanished_.load(); }
  uint64_t reads() const { return reads_.load(); }          // pread calls made through the table
  uint64_t faultsMet() const { return faultsMet_.load(); }  // calls that failed or stopped at a fault

  // A table from text: comma-separated "eio:SECTOR[+COUNT]",
  // "short:SECTOR", "vanish:SECTOR", "vanish-after:READS", "gone-error:eio"
  // and "whole". Null with `error` set when the text is not understood.
  static std::shared_ptr<SectorFaults> fromText(std::string_view text, std::string& error);

  // The table every DMedia made afterwards reads through unless given its
  // own: the command line sets it from AMBREL_SECTOR_FAULTS, so that tests
  // can damage the drives of a whole run.
  static void setProcessDefault(std::shared_ptr<SectorFaults> faults);
  static std::shared_ptr<SectorFaults> processDefault();

 private:
  struct Range {
    uint64_t first = 0, end = 0;
    Kind kind = Kind::IOError;
  };
  // The first faulty sector in [first, end) and its kind; false when none.
  bool firstFault(uint64_t first, uint64_t end, uint64_t& at, Kind& kind) const;
  ssize_t fail(int error);
  ssize_t lose();

  std::vector<Range> ranges_;
  uint64_t vanishAfter_ = UINT64_MAX;
  int vanishError_ = 0;
  bool wholeReadFails_ = false;
  std::atomic<bool> vanished_{false};
  std::atomic<uint64_t> reads_{0};
  std::atomic<uint64_t> faultsMet_{0};
};

}  // namespace ambrel
