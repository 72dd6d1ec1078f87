#include "ZulPlatform/linux/secrets/FileSecretBackend.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <system_error>

#include "ZulPlatform/linux/UserFolders.h"

namespace zul {
namespace {

namespace fs = std::filesystem;

// Escaped names longer than this could exceed NAME_MAX with the temporary
// file's tag.
constexpr std::size_t kMaxEscapedLength = 200;

std::string errnoText(int error) { return std::strerror(error); }

class FileDescriptor {
 public:
  explicit FileDescriptor(int fd = -1) : fd_(fd) {}
  ~FileDescriptor() {
    if (fd_ >= 0) ::close(fd_);
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  int get() const { return fd_; }
  // Closes now, reporting the error close() gives (a late write failure).
  int close() {
    int result = ::close(fd_);
    fd_ = -1;
    return result == 0 ? 0 : errno;
  }

 private:
  int fd_;
};

bool writeAll(int fd, const std::uint8_t* data, std::size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

}  // namespace

// Creates `folder` (0700) if missing and tightens it if it lets others in.
// Throws the errno on failure.
void FileSecretBackend::ensurePrivateFolder(const fs::path& folder) {
  if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
    throw std::system_error(errno, std::generic_category(), "cannot create " + folder.string());
  }
  struct stat info {};
  if (::stat(folder.c_str(), &info) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot inspect " + folder.string());
  }
  if (!S_ISDIR(info.st_mode)) {
    throw std::system_error(ENOTDIR, std::generic_category(), folder.string());
  }
  if (info.st_uid != ::geteuid()) {
    throw std::runtime_error(folder.string() + " is not owned by the user");
  }
  if ((info.st_mode & 077) != 0 && ::chmod(folder.c_str(), 0700) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot restrict " + folder.string());
  }
}

namespace {

// Tightens an existing folder, leaving a missing one missing. Best effort: a
// read works whether or not this succeeds.
void tightenIfPresent(const fs::path& folder) {
  struct stat info {};
  if (::stat(folder.c_str(), &info) == 0 && S_ISDIR(info.st_mode) && info.st_uid == ::geteuid() &&
      (info.st_mode & 077) != 0) {
    ::chmod(folder.c_str(), 0700);
  }
}

void syncFolder(const fs::path& folder) {
  FileDescriptor fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd.get() < 0 || ::fsync(fd.get()) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot sync " + folder.string());
  }
}

// Temporary files are named ".<file>.tmp.<pid>.<n>": hidden (escaped names
// never start with "."), and telling which process wrote them.
std::string temporaryName(const std::string& file) {
  static std::atomic<unsigned long> counter{0};
  return "." + file + ".tmp." + std::to_string(::getpid()) + "." + std::to_string(counter++);
}

// The writer's process id of a temporary file name, or 0.
pid_t temporaryWriter(std::string_view name) {
  if (name.empty() || name.front() != '.') return 0;
  auto last = name.rfind('.');
  if (last == std::string_view::npos || last + 1 == name.size()) return 0;
  auto pidDot = name.rfind('.', last - 1);
  if (pidDot == std::string_view::npos || pidDot < 5 || name.substr(pidDot - 4, 4) != ".tmp") {
    return 0;
  }
  auto allDigits = [](std::string_view text) {
    return !text.empty() && text.size() <= 10 &&
           std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
  };
  const auto pid = name.substr(pidDot + 1, last - pidDot - 1);
  if (!allDigits(pid) || !allDigits(name.substr(last + 1))) return 0;
  return static_cast<pid_t>(std::stoll(std::string(pid)));
}

// Removes the temporary files of writers that died before renaming them.
void removeDeadWritersFiles(const fs::path& folder) {
  std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(folder.c_str()), ::closedir);
  if (!dir) return;
  while (const dirent* entry = ::readdir(dir.get())) {
    const pid_t writer = temporaryWriter(entry->d_name);
    if (writer > 0 && writer != ::getpid() && ::kill(writer, 0) != 0 && errno == ESRCH) {
      ::unlinkat(::dirfd(dir.get()), entry->d_name, 0);
    }
  }
}

class FileLock final : public SecretUpdateLock {
 public:
  explicit FileLock(int fd) : fd_(fd) {}
  ~FileLock() override { ::close(fd_); }  // closing releases the flock

 private:
  int fd_;
};

}  // namespace

std::unique_ptr<SecretUpdateLock> FileSecretBackend::lockFile(const fs::path& path,
                                                              const std::string& account) {
  const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600);
  if (fd < 0) throw SecretStoreError::writeFailed(account, path.string() + ": " + errnoText(errno));
  auto lock = std::make_unique<FileLock>(fd);
  while (::flock(fd, LOCK_EX) != 0) {
    if (errno != EINTR) {
      throw SecretStoreError::writeFailed(account, path.string() + ": " + errnoText(errno));
    }
  }
  return lock;
}

std::unique_ptr<SecretUpdateLock> FileSecretBackend::lockForUpdate(const std::string& service,
                                                                   const std::string& account) {
  if (escapeName(service).size() > kMaxEscapedLength ||
      escapeName(account).size() > kMaxEscapedLength) {
    throw SecretStoreError::writeFailed(account, "the name is too long for a file name");
  }
  const fs::path path = pathFor(service, account);
  try {
    std::error_code ignored;
    if (root_.has_parent_path()) fs::create_directories(root_.parent_path(), ignored);
    ensurePrivateFolder(root_);
    ensurePrivateFolder(path.parent_path());
  } catch (const std::exception& error) {
    throw SecretStoreError::writeFailed(account, error.what());
  }
  return lockFile(path.parent_path() / ("." + path.filename().string() + ".lock"), account);
}

fs::path FileSecretBackend::defaultRoot() {
  return userFolder("XDG_DATA_HOME", ".local/share").value_or("/.local/share") / "zul-agent" /
         "secrets";
}

std::string FileSecretBackend::escapeName(const std::string& name) {
  // Letters, digits, "-", "_" and "." stay; every other byte ("/", "%",
  // controls, anything non-ASCII) and a leading "." become %XX, and the empty
  // name becomes a lone "%". So no name is a path, "." or "..", or a hidden
  // file like the temporary ones, and no two names share a file.
  static constexpr char kHex[] = "0123456789ABCDEF";
  if (name.empty()) return "%";
  std::string out;
  for (std::size_t i = 0; i < name.size(); ++i) {
    unsigned char c = static_cast<unsigned char>(name[i]);
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
        c == '_' || (c == '.' && i > 0)) {
      out += static_cast<char>(c);
    } else {
      out += '%';
      out += kHex[c >> 4];
      out += kHex[c & 15];
    }
  }
  return out;
}

fs::path FileSecretBackend::pathFor(const std::string& service, const std::string& account) const {
  return root_ / escapeName(service) / escapeName(account);
}

std::optional<Bytes> FileSecretBackend::load(const std::string& service,
                                             const std::string& account) {
  if (escapeName(service).size() > kMaxEscapedLength ||
      escapeName(account).size() > kMaxEscapedLength) {
    return std::nullopt;  // such a name can never have been saved
  }
  const fs::path path = pathFor(service, account);
  tightenIfPresent(root_);
  tightenIfPresent(path.parent_path());

  FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (fd.get() < 0) {
    int error = errno;
    if (error == ENOENT) return std::nullopt;
    if (error == ELOOP) {
      throw SecretStoreError::readFailed(account, path.string() + " is a symbolic link");
    }
    throw SecretStoreError::readFailed(account, path.string() + ": " + errnoText(error));
  }
  struct stat info {};
  if (::fstat(fd.get(), &info) != 0) {
    throw SecretStoreError::readFailed(account, path.string() + ": " + errnoText(errno));
  }
  if (!S_ISREG(info.st_mode)) {
    throw SecretStoreError::readFailed(account, path.string() + " is not a regular file");
  }
  if (info.st_uid != ::geteuid()) {
    throw SecretStoreError::readFailed(account, path.string() + " is not owned by the user");
  }
  if ((info.st_mode & 077) != 0) ::fchmod(fd.get(), 0600);

  Bytes secret;
  std::uint8_t buffer[4096];
  for (;;) {
    ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
    if (n < 0) {
      if (errno == EINTR) continue;
      throw SecretStoreError::readFailed(account, path.string() + ": " + errnoText(errno));
    }
    if (n == 0) break;
    secret.insert(secret.end(), buffer, buffer + n);
  }
  return secret;
}

void FileSecretBackend::save(const std::string& service, const std::string& account,
                             const Bytes& secret) {
  if (escapeName(service).size() > kMaxEscapedLength ||
      escapeName(account).size() > kMaxEscapedLength) {
    throw SecretStoreError::writeFailed(account, "the name is too long for a file name");
  }
  const fs::path path = pathFor(service, account);
  const fs::path folder = path.parent_path();
  try {
    std::error_code ignored;
    if (root_.has_parent_path()) fs::create_directories(root_.parent_path(), ignored);
    ensurePrivateFolder(root_);
    ensurePrivateFolder(folder);
  } catch (const std::exception& error) {
    throw SecretStoreError::writeFailed(account, error.what());
  }

  removeDeadWritersFiles(folder);

  // Written unnamed where the file system allows it, so that a writer killed
  // before the rename leaves nothing; named only for the rename.
  const fs::path temporary = folder / temporaryName(path.filename().string());
  auto fail = [&](int error) {
    ::unlink(temporary.c_str());
    return SecretStoreError::writeFailed(account, path.string() + ": " + errnoText(error));
  };
  auto writeAndSync = [&](FileDescriptor& fd) {
    if (!writeAll(fd.get(), secret.data(), secret.size()) || ::fsync(fd.get()) != 0) {
      throw fail(errno);
    }
  };
  bool named = false;
  {
    FileDescriptor fd(::open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (fd.get() >= 0) {
      writeAndSync(fd);
      const std::string self = "/proc/self/fd/" + std::to_string(fd.get());
      named = ::linkat(AT_FDCWD, self.c_str(), AT_FDCWD, temporary.c_str(), AT_SYMLINK_FOLLOW) == 0;
    }
  }
  if (!named) {  // no O_TMPFILE here, or no /proc
    FileDescriptor fd(
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (fd.get() < 0) {
      throw SecretStoreError::writeFailed(account, folder.string() + ": " + errnoText(errno));
    }
    writeAndSync(fd);
    if (int error = fd.close(); error != 0) throw fail(error);
  }
  if (::rename(temporary.c_str(), path.c_str()) != 0) throw fail(errno);
  try {
    syncFolder(folder);
  } catch (const std::exception& error) {
    throw SecretStoreError::writeFailed(account, error.what());
  }
}

void FileSecretBackend::remove(const std::string& service, const std::string& account) noexcept {
  try {
    const fs::path path = pathFor(service, account);
    if (::unlink(path.c_str()) == 0) {
      FileDescriptor fd(::open(path.parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
      if (fd.get() >= 0) ::fsync(fd.get());
    }
  } catch (...) {
    // Removing never fails: at worst the secret stays.
  }
}

}  // namespace zul
