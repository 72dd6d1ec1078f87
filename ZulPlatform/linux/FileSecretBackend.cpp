#include "ZulPlatform/linux/FileSecretBackend.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <system_error>

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

// Creates `folder` (0700) if missing and tightens it if it lets others in.
// Throws the errno on failure.
void ensurePrivateFolder(const fs::path& folder) {
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

}  // namespace

fs::path FileSecretBackend::defaultRoot() {
  // Relative values are invalid by the XDG rules and are ignored.
  fs::path dataHome;
  if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && xdg[0] == '/') {
    dataHome = xdg;
  } else {
    const char* home = std::getenv("HOME");
    if (!home || home[0] != '/') {
      const passwd* entry = ::getpwuid(::geteuid());
      home = entry ? entry->pw_dir : nullptr;
    }
    dataHome = fs::path(home ? home : "/") / ".local" / "share";
  }
  return dataHome / "zul-agent" / "secrets";
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

  // Temporary files are hidden; escaped names never start with ".".
  std::string temporary = (folder / ("." + path.filename().string() + ".XXXXXX")).string();
  FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));  // mode 0600
  if (fd.get() < 0) {
    throw SecretStoreError::writeFailed(account, folder.string() + ": " + errnoText(errno));
  }
  auto fail = [&](int error) {
    ::unlink(temporary.c_str());
    return SecretStoreError::writeFailed(account, path.string() + ": " + errnoText(error));
  };
  if (::fchmod(fd.get(), 0600) != 0) throw fail(errno);
  if (!writeAll(fd.get(), secret.data(), secret.size())) throw fail(errno);
  if (::fsync(fd.get()) != 0) throw fail(errno);
  if (int error = fd.close(); error != 0) throw fail(error);
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
