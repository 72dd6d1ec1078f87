#include "ZulPlatform/linux/files/HomeFolder.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/openat2.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace zul {

FileAccessError FileAccessError::badName(std::string_view name) {
  return {Case::badName, formatErrorCase("badName", {field(name)})};
}
FileAccessError FileAccessError::outside(std::string_view path) {
  return {Case::outside, formatErrorCase("outside", {field(path)})};
}
FileAccessError FileAccessError::notFound(std::string_view path) {
  return {Case::notFound, formatErrorCase("notFound", {field(path)})};
}
FileAccessError FileAccessError::notAFolder(std::string_view path) {
  return {Case::notAFolder, formatErrorCase("notAFolder", {field(path)})};
}
FileAccessError FileAccessError::notAFile(std::string_view path) {
  return {Case::notAFile, formatErrorCase("notAFile", {field(path)})};
}
FileAccessError FileAccessError::noSpace(std::int64_t needed) {
  return {Case::noSpace, formatErrorCase("noSpace", {field("needed", needed)})};
}
FileAccessError FileAccessError::failed(std::string_view what, int error) {
  return {Case::failed, formatErrorCase("failed", {field(what), field(std::strerror(error))})};
}

namespace {

struct FdCloser {
  int fd;
  ~FdCloser() {
    if (fd >= 0) ::close(fd);
  }
};

std::string joined(std::string_view folder, std::string_view name) {
  if (folder.empty()) return std::string(name);
  std::string out(folder);
  if (out.back() != '/') out += '/';
  return out + std::string(name);
}

std::string partName(std::string_view name, std::string_view tag) {
  return "." + std::string(name) + "." + std::string(tag) + ".part";
}

}  // namespace

HomeFolder::HomeFolder(std::filesystem::path root) : root_(std::move(root)) {
  rootFd_ = ::open(root_.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
  if (rootFd_ < 0) throw FileAccessError::failed("opening the home folder", errno);
}

HomeFolder::~HomeFolder() {
  if (rootFd_ >= 0) ::close(rootFd_);
}

std::filesystem::path HomeFolder::userHome() {
  if (const char* home = std::getenv("HOME"); home && *home == '/') return home;
  if (const passwd* user = ::getpwuid(::getuid()); user && user->pw_dir) return user->pw_dir;
  return "/";
}

std::string HomeFolder::defaultUploadFolder(const std::filesystem::path& home) {
  std::string downloads;
  if (FILE* out = ::popen("xdg-user-dir DOWNLOAD 2>/dev/null", "r")) {
    std::array<char, 4096> line{};
    if (std::fgets(line.data(), int(line.size()), out)) downloads = line.data();
    ::pclose(out);
  }
  while (!downloads.empty() && (downloads.back() == '\n' || downloads.back() == '/')) {
    downloads.pop_back();
  }
  const std::string prefix = home.string() + "/";
  std::string relative = "Downloads";
  // xdg-user-dir answers the home folder itself when no download folder is set.
  if (downloads.rfind(prefix, 0) == 0 && downloads.size() > prefix.size()) {
    relative = downloads.substr(prefix.size());
  }
  return relative + "/Velto";
}

void HomeFolder::checkName(std::string_view name) {
  const bool control = std::any_of(name.begin(), name.end(), [](char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f || c == '/';
  });
  if (name.empty() || name == "." || name == ".." || control || name.size() > 255) {
    throw FileAccessError::badName(name);
  }
}

int HomeFolder::openBeneath(std::string_view path, int flags, int mode) const {
  // Each component is checked as a name; the kernel keeps the walk beneath
  // the root, symlinks included.
  std::string relative(path);
  for (std::size_t from = 0; from < relative.size();) {
    const std::size_t to = std::min(relative.find('/', from), relative.size());
    if (to > from) checkName(std::string_view(relative).substr(from, to - from));
    from = to + 1;
  }
  if (relative.empty()) relative = ".";
  open_how how{};
  how.flags = std::uint64_t(flags | O_CLOEXEC);
  how.mode = std::uint64_t(mode);
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
  const int fd = int(::syscall(SYS_openat2, rootFd_, relative.c_str(), &how, sizeof how));
  if (fd >= 0) return fd;
  if (errno == EXDEV || errno == ELOOP) throw FileAccessError::outside(path);
  if (errno == ENOENT) throw FileAccessError::notFound(path);
  if (errno == ENOTDIR) throw FileAccessError::notAFolder(path);
  throw FileAccessError::failed(path, errno);
}

std::vector<FolderEntry> HomeFolder::list(std::string_view folder, bool hidden) const {
  const int fd = openBeneath(folder, O_RDONLY | O_DIRECTORY);
  DIR* dir = ::fdopendir(fd);
  if (!dir) {
    ::close(fd);
    throw FileAccessError::failed(folder, errno);
  }
  std::unique_ptr<DIR, int (*)(DIR*)> closer(dir, ::closedir);
  std::vector<FolderEntry> entries;
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    if (!hidden && name[0] == '.') continue;
    struct stat info {};
    if (::fstatat(::dirfd(dir), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) continue;
    // Only what the phone can open: folders and regular files.
    if (!S_ISDIR(info.st_mode) && !S_ISREG(info.st_mode)) continue;
    entries.push_back({name, S_ISDIR(info.st_mode), S_ISREG(info.st_mode) ? info.st_size : 0,
                       info.st_mtim.tv_sec});
  }
  std::sort(entries.begin(), entries.end(), [](const FolderEntry& a, const FolderEntry& b) {
    return a.folder != b.folder ? a.folder : a.name < b.name;
  });
  return entries;
}

int HomeFolder::openForReading(std::string_view path, std::int64_t& size) const {
  const int fd = openBeneath(path, O_RDONLY | O_NOFOLLOW | O_NONBLOCK);
  struct stat info {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    ::close(fd);
    throw FileAccessError::notAFile(path);
  }
  ::fcntl(fd, F_SETFL, 0);
  size = info.st_size;
  return fd;
}

void HomeFolder::makeFolder(std::string_view folder) const {
  std::string made;
  std::string rest(folder);
  for (std::size_t from = 0; from < rest.size();) {
    const std::size_t to = std::min(rest.find('/', from), rest.size());
    const std::string name = rest.substr(from, to - from);
    from = to + 1;
    if (name.empty()) continue;
    checkName(name);
    const int parent = openBeneath(made, O_RDONLY | O_DIRECTORY);
    FdCloser closer{parent};
    if (::mkdirat(parent, name.c_str(), 0755) != 0 && errno != EEXIST) {
      throw FileAccessError::failed(joined(made, name), errno);
    }
    made = joined(made, name);
  }
}

int HomeFolder::openPart(std::string_view folder, std::string_view name, std::string_view tag,
                         std::int64_t expected, std::int64_t& size) const {
  checkName(name);
  checkName(tag);
  makeFolder(folder);
  const int fd =
      openBeneath(joined(folder, partName(name, tag)), O_RDWR | O_CREAT | O_NOFOLLOW, 0600);
  struct stat info {};
  struct statvfs space {};
  if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || ::fstatvfs(fd, &space) != 0) {
    ::close(fd);
    throw FileAccessError::notAFile(joined(folder, partName(name, tag)));
  }
  const std::int64_t needed = std::max<std::int64_t>(0, expected - info.st_size);
  const std::int64_t free = std::int64_t(space.f_bavail) * std::int64_t(space.f_frsize);
  if (free - needed < reserveBytes) {
    ::close(fd);
    // A part made just now for this refusal holds nothing: it goes.
    if (info.st_size == 0) removePart(folder, name, tag);
    throw FileAccessError::noSpace(needed);
  }
  size = info.st_size;
  ::lseek(fd, 0, SEEK_END);
  return fd;
}

std::string HomeFolder::finishPart(std::string_view folder, std::string_view name,
                                   std::string_view tag) const {
  const int dir = openBeneath(folder, O_RDONLY | O_DIRECTORY);
  FdCloser closer{dir};
  const std::string part = partName(name, tag);
  const std::string whole(name);
  const auto dot = whole.rfind('.');
  const bool extension = dot != std::string::npos && dot > 0;
  for (int n = 1; n < 1000; ++n) {
    const std::string candidate =
        n == 1
            ? whole
            : (extension ? whole.substr(0, dot) + " (" + std::to_string(n) + ")" + whole.substr(dot)
                         : whole + " (" + std::to_string(n) + ")");
    // Never over another file.
    if (::renameat2(dir, part.c_str(), dir, candidate.c_str(), RENAME_NOREPLACE) == 0) {
      return candidate;
    }
    if (errno != EEXIST) throw FileAccessError::failed(joined(folder, candidate), errno);
  }
  throw FileAccessError::failed(joined(folder, whole), EEXIST);
}

void HomeFolder::removePart(std::string_view folder, std::string_view name,
                            std::string_view tag) const {
  try {
    const int dir = openBeneath(folder, O_RDONLY | O_DIRECTORY);
    FdCloser closer{dir};
    ::unlinkat(dir, partName(name, tag).c_str(), 0);
  } catch (const FileAccessError&) {
    // nothing to remove
  }
}

}  // namespace zul
