#pragma once
// The folder walk of a save: folders made and entered through descriptors
// (the working directory never moves), files created under names that
// replace nothing, and every file that is not saved whole accounted for.
// Internal to output/.
#include <sys/types.h>

#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

#include "output/SafeName.h"
#include "output/Saver.h"

namespace ambrel {

class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  Fd(Fd&& o) noexcept : fd_(o.release()) {}
  Fd& operator=(Fd&& o) noexcept {
    if (this != &o) {
      reset();
      fd_ = o.release();
    }
    return *this;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  // close() result: a write the file system defers can fail only here.
  bool reset();

 private:
  int fd_ = -1;
};

// Marked files the save would reach below `folder` (through marked folders).
uint32_t markedFilesBelow(const HDIR& folder);

struct Saver::Walk {
  // One folder being written: its entry, its open descriptor (closed while
  // deep below it, and opened again through ".." of the child on the way
  // back), and the subfolders to enter once its own children are written.
  struct Frame {
    const HDIR* dir = nullptr;
    const HDIR* contents = nullptr;  // whose children are written: dir, or the folder a link shows
    bool all = false;                // below a folder link: everything is saved, marked or not
    size_t linkDepth = 0;
    std::string savedPath;  // below the destination
    Fd fd;
    dev_t dev = 0;
    ino_t ino = 0;
    std::vector<std::pair<size_t, std::string>> subfolders;  // child index, name written
    size_t nextSub = 0;
    bool childrenDone = false;
    bool lost = false;  // could not be opened again: the rest of it is given up
  };

  // Names given so far in one folder, so that the n-th wanting a name starts
  // at its number rather than trying all the earlier ones again.
  struct Names {
    std::unordered_map<std::string, uint32_t> next;
    size_t maxBytes = kDefaultNameMax;
  };

  enum class Kind { Folder, File, FileWithSidecar, Symlink };
  struct Created {
    std::string name;
    Fd data, sidecar;
  };

  Saver& saver;
  bool canSaveSlashes = true;
  // Private-folder entries saved at their links instead.
  std::unordered_set<const HDIR*> savedAtLinks;
  std::vector<Frame> frames;

  void run(const std::string& destination);

 private:
  std::optional<Created> create(int dirFd, Names& names, const HDIR& entry, Kind kind,
                                const std::string& linkTarget = {});
  std::optional<Created> failedCreate(const HDIR& entry, const std::string& name);
  void saveChildren(Frame& f);
  void saveFile(Frame& f, Names& names, const HDIR& c);
  void saveSymlink(Frame& f, Names& names, const HDIR& c);
  // A folder link that would lead back into a folder being written, or too deep.
  bool linkRefused(const Frame& f, const HDIR& link) const;
  // Removes what was written of a file that cannot be kept.
  void discard(int dirFd, const std::string& name, bool sidecar);
  // Moves a file that is not whole to a name that says so; its new name, or
  // nullopt when it had to be removed instead.
  std::optional<std::string> keepIncomplete(int dirFd, Names& names, const std::string& name, bool sidecar);
  // A folder that could not be made or entered: its marked files are lost.
  void folderLost(const HDIR& folder, const std::string& why);
  void push(const HDIR* dir, Fd fd, bool all, size_t linkDepth, std::string savedPath);
  void saved(const Frame& f, const HDIR& c, const std::string& name, bool whole, bool symlink, bool sidecar = false);
  void pop();
};

}  // namespace ambrel
