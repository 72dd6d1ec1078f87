#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Support/Error.h"

namespace zul {

class FileAccessError : public Error {
 public:
  enum class Case { badName, outside, notFound, notAFolder, notAFile, noSpace, failed };
  // A name with "/", NUL or a control character, or "." or "..".
  static FileAccessError badName(std::string_view name);
  // A path that leads out of the home folder (through "..", a symlink…).
  static FileAccessError outside(std::string_view path);
  static FileAccessError notFound(std::string_view path);
  static FileAccessError notAFolder(std::string_view path);
  // Not a regular file (a device, a FIFO, a socket).
  static FileAccessError notAFile(std::string_view path);
  // Writing this much would leave less than the reserve free.
  static FileAccessError noSpace(std::int64_t needed);
  static FileAccessError failed(std::string_view what, int error);
  Case kind() const { return kind_; }

 private:
  FileAccessError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

struct FolderEntry {
  std::string name;
  bool folder = false;
  std::int64_t size = 0;
  std::int64_t modified = 0;  // Unix seconds
};

// A person's home folder as the phone may reach it: every path is relative
// to it ("" is the home folder itself, "Documents/a.txt"), resolved beneath
// it by the kernel (openat2 with RESOLVE_BENEATH: no "..", no absolute path,
// no symlink that leads out); only folders and regular files. Written files
// never replace another: a free name is chosen.
class HomeFolder {
 public:
  // Writes leave at least this much free.
  static constexpr std::int64_t reserveBytes = std::int64_t(1) << 30;

  explicit HomeFolder(std::filesystem::path root);
  ~HomeFolder();
  HomeFolder(const HomeFolder&) = delete;
  HomeFolder& operator=(const HomeFolder&) = delete;

  // The user's home folder, from $HOME or the password database.
  static std::filesystem::path userHome();
  // Where uploads go unless the phone names a folder: the user's download
  // folder (xdg-user-dir DOWNLOAD) in a folder named after the product,
  // relative to the home folder.
  static std::string defaultUploadFolder(const std::filesystem::path& home);

  // Throws FileAccessError::badName for a name a file must not have.
  static void checkName(std::string_view name);

  // Folders first, then by name; hidden entries (".name") only on request.
  std::vector<FolderEntry> list(std::string_view folder, bool hidden) const;
  // An open regular file (a descriptor the caller closes) and its size.
  int openForReading(std::string_view path, std::int64_t& size) const;
  // Makes the folder (and its parents) when missing.
  void makeFolder(std::string_view folder) const;
  // A new hidden "<folder>/.<name>.<tag>.part" for writing, or the one
  // already there (a resumed upload) positioned at its end; `size` is what it
  // holds. Refused when `expected - size` bytes would leave less than the
  // reserve.
  int openPart(std::string_view folder, std::string_view name, std::string_view tag,
               std::int64_t expected, std::int64_t& size) const;
  // The part becomes "<folder>/<name>", or "<name> (2).<ext>"… when that is
  // taken; returns the name it got.
  std::string finishPart(std::string_view folder, std::string_view name,
                         std::string_view tag) const;
  void removePart(std::string_view folder, std::string_view name, std::string_view tag) const;

  const std::filesystem::path& root() const { return root_; }

 private:
  // A descriptor of `path` opened beneath the root with `flags`.
  int openBeneath(std::string_view path, int flags, int mode = 0) const;

  std::filesystem::path root_;
  int rootFd_ = -1;
};

}  // namespace zul
