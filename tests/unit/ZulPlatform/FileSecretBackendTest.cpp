#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <set>
#include <thread>

#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulCore/Trust/SecretStore.h"
#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulPlatform/linux/secrets/FileSecretBackend.h"
#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"
#include "unit/ZulCore/Outcome.h"

namespace zul {
namespace {

namespace fs = std::filesystem;

constexpr const char* kService = "dev.zul.agent.mac";

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const fs::path& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

class FileSecretBackendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zul-secrets-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    temp = pattern;
    root = temp / "data" / "zul-agent" / "secrets";
    backend = std::make_shared<FileSecretBackend>(root);
  }
  void TearDown() override { fs::remove_all(temp); }

  fs::path temp, root;
  std::shared_ptr<FileSecretBackend> backend;
};

// Folders another user can list are tightened before anything is read.
TEST_F(FileSecretBackendTest, FoldersAndFilesAreReadableByTheUserAlone) {
  ::umask(022);
  fs::create_directories(root / kService);
  ::chmod(root.c_str(), 0755);
  ::chmod((root / kService).c_str(), 0777);
  EXPECT_EQ(backend->load(kService, "identity"), std::nullopt);
  EXPECT_EQ(modeOf(root), 0700u);
  EXPECT_EQ(modeOf(root / kService), 0700u);
  ::chmod((root / kService).c_str(), 0755);
  backend->save(kService, "identity", toBytes("secret"));
  EXPECT_EQ(modeOf(root / kService), 0700u);
  EXPECT_EQ(modeOf(backend->pathFor(kService, "identity")), 0600u);
}

TEST_F(FileSecretBackendTest, EscapesNamesIntoDistinctFilesThatSaveReplaceAndRemove) {
  EXPECT_EQ(backend->load(kService, "identity"), std::nullopt);  // not even a folder yet
  const std::pair<std::string, std::string> table[] = {
      {"dtls.certificate_v2", "dtls.certificate_v2"},
      {"", "%"},
      {"..", "%2E."},
      {"../x", "%2E.%2Fx"},
      {"a%2Fb", "a%252Fb"},
      {"sp ace\n", "sp%20ace%0A"},
  };
  std::set<std::string> files;
  for (const auto& [name, escaped] : table) {
    EXPECT_EQ(FileSecretBackend::escapeName(name), escaped) << name;
    EXPECT_EQ(backend->pathFor(kService, name).parent_path(), root / kService) << name;
    backend->save(kService, name, Bytes{0x00, 0xFF, 0x0A, 0x0D, 0x00});
    backend->save(kService, name, toBytes(name + std::string("\0\r", 2)));  // shorter for most
    files.insert(escaped);
  }
  for (const auto& [name, escaped] : table)
    EXPECT_EQ(backend->load(kService, name), toBytes(name + std::string("\0\r", 2)));
  EXPECT_EQ(backend->load("other.service", "identity"), std::nullopt);
  // Only the secret files: no temporary file is left behind.
  std::set<std::string> onDisk;
  for (const auto& entry : fs::directory_iterator(root / kService))
    onDisk.insert(entry.path().filename().string());
  EXPECT_EQ(onDisk, files);
  EXPECT_EQ(std::distance(fs::directory_iterator(root), fs::directory_iterator()), 1);
  backend->remove(kService, "..");
  EXPECT_EQ(backend->load(kService, ".."), std::nullopt);
  backend->remove("never.used", "nothing");  // absent: nothing happens

  // A service name is escaped the same way.
  backend->save("../escape", "identity", toBytes("x"));
  EXPECT_TRUE(fs::exists(root / "%2E.%2Fescape" / "identity"));
}

TEST_F(FileSecretBackendTest, RefusesSymlinksUnreadableFilesAndAnUnwritableFolder) {
  backend->save(kService, "identity", toBytes("secret"));
  const fs::path elsewhere = temp / "elsewhere";
  writeFile(elsewhere, "planted");
  fs::create_symlink(elsewhere, backend->pathFor(kService, "link"));
  EXPECT_THROW(backend->load(kService, "link"), SecretStoreError);
  fs::create_directory(backend->pathFor(kService, "folder"));
  EXPECT_THROW(backend->load(kService, "folder"), SecretStoreError);

  // A save replaces the link itself, never the file it points to.
  backend->save(kService, "link", toBytes("mine"));
  EXPECT_EQ(readFile(elsewhere), "planted");
  EXPECT_EQ(backend->load(kService, "link"), toBytes("mine"));

  // Only root can plant a file owned by someone else.
  const fs::path identity = backend->pathFor(kService, "identity");
  if (::geteuid() == 0)
    ASSERT_EQ(::chown(identity.c_str(), 65534, 65534), 0);
  else
    ::chmod(identity.c_str(), 0000);
  const auto text = test::outcome<SecretStoreError>([&] { backend->load(kService, "identity"); });
  EXPECT_NE(text.find(::geteuid() == 0 ? "not owned by the user" : "readFailed"), std::string::npos)
      << text;

  const fs::path blocked = temp / "blocked";
  writeFile(blocked, "a file where the folder belongs");
  EXPECT_THROW(FileSecretBackend(blocked).save(kService, "identity", toBytes("secret")),
               SecretStoreError);
}

TrustedDevice phone(const std::string& id) {
  TrustedDevice device;
  device.deviceId = id;
  device.name = id;
  device.ed25519PublicKey = "key";
  device.permissions = {DevicePermission::view};
  return device;
}

// Runs `work` in a child process; returns its pid. The child exits 0 when
// `work` returns, 1 when it throws.
template <typename Work>
pid_t inChild(Work work) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    int status = 0;
    try {
      work();
    } catch (...) {
      status = 1;
    }
    ::_exit(status);
  }
  return pid;
}

TEST_F(FileSecretBackendTest, ConcurrentProcessesLoseNoUpdate) {
  // 8 processes, each revoking 5 phones and pairing 5 new ones at once, as
  // the agent pairing while the trusted-devices tool revokes.
  constexpr int processes = 8, each = 5;
  std::vector<TrustedDevice> before;
  for (int p = 0; p < processes; ++p)
    for (int k = 0; k < each; ++k) before.push_back(phone("old_" + std::to_string(p * each + k)));
  TrustedDeviceStore(SecretStore(TrustedDeviceStore::account, backend)).save(before);

  std::vector<pid_t> children;
  for (int p = 0; p < processes; ++p) {
    children.push_back(inChild([&, p] {
      const TrustedDeviceStore store(
          SecretStore(TrustedDeviceStore::account, std::make_shared<FileSecretBackend>(root)));
      for (int k = 0; k < each; ++k) {
        store.revoke("old_" + std::to_string(p * each + k));
        store.addOrReplace(phone("new_" + std::to_string(p * each + k)));
      }
    }));
  }
  for (pid_t child : children) {
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const auto after = TrustedDeviceStore(SecretStore(TrustedDeviceStore::account, backend)).load();
  ASSERT_EQ(after.size(), std::size_t(2 * processes * each));
  int revoked = 0;
  for (const auto& device : after) revoked += device.revoked;
  EXPECT_EQ(revoked, processes * each);
}

TEST_F(FileSecretBackendTest, KilledWriterLeavesNoTemporaryFile) {
  backend->save(kService, "trusted-devices", toBytes("old"));
  const pid_t writer = inChild([&] {
    FileSecretBackend own(root);
    for (std::uint64_t n = 0;; ++n)
      own.save(kService, "trusted-devices", toBytes(n % 2 ? "a" : "b"));
  });
  while (backend->load(kService, "trusted-devices") == toBytes("old")) std::this_thread::yield();
  ::kill(writer, SIGKILL);
  ASSERT_EQ(::waitpid(writer, nullptr, 0), writer);
  // Also what a writer killed between naming and renaming would leave.
  const fs::path stale =
      root / kService / (".trusted-devices.tmp." + std::to_string(writer) + ".7");
  writeFile(stale, "half");

  backend->save(kService, "identity", toBytes("next save"));
  std::set<std::string> onDisk;
  for (const auto& entry : fs::directory_iterator(root / kService))
    onDisk.insert(entry.path().filename().string());
  EXPECT_EQ(onDisk, (std::set<std::string>{"identity", "trusted-devices"}));
  const auto kept = backend->load(kService, "trusted-devices");
  EXPECT_TRUE(kept == toBytes("a") || kept == toBytes("b"));
}

TEST_F(FileSecretBackendTest, AutomaticChoiceKeepsTheStoreThatHoldsTheIdentity) {
  struct Case {
    const char* name;
    const char* setting;
    const char* remembered;  // before; nullptr: nothing remembered
    bool fileHasIdentity;
    bool serviceAnswers;
    const char* chosen;  // "unavailable": SecretStoreError
    const char* rememberedAfter;
  };
  const Case cases[] = {
      {"first start without a service", "", nullptr, false, false, "file", "file"},
      {"first start with a service", "auto", nullptr, false, true, "secret-service",
       "secret-service"},
      {"file identity, a service appears", "", nullptr, true, true, "file", "file"},
      {"file remembered, a service appears", "", "file", false, true, "file", "file"},
      {"service remembered and gone", "", "secret-service", false, false, "unavailable",
       "secret-service"},
      {"service remembered, a file identity too", "", "secret-service", true, true,
       "secret-service", "secret-service"},
      {"file forced", "file", "secret-service", false, true, "file", "secret-service"},
      {"service forced and gone", "secret-service", nullptr, false, false, "unavailable", nullptr},
      {"unknown store", "kwallet", nullptr, false, true, "unavailable", nullptr},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path remembered = temp / c.name / "secret-store";
    fs::create_directories(remembered.parent_path());
    if (c.remembered) writeFile(remembered, std::string(c.remembered) + "\n");
    auto file = std::make_shared<MemorySecretBackend>();
    auto service = std::make_shared<MemorySecretBackend>();
    if (c.fileHasIdentity) file->save(SecretStore::service, "identity", toBytes("key"));
    SecretBackendCandidates candidates{
        .setting = c.setting,
        .openFile = [&] { return file; },
        .probeSecretService =
            [&](bool) {
              return c.serviceAnswers ? std::nullopt : std::optional<std::string>("no bus");
            },
        .openSecretService = [&] { return service; },
        .remembered = remembered,
    };
    std::string chosen;
    try {
      const auto choice = chooseSecretBackend(candidates);
      chosen = choice.backend == file ? "file" : choice.backend == service ? "secret-service" : "?";
    } catch (const SecretStoreError& error) {
      EXPECT_EQ(error.kind(), SecretStoreError::Case::unavailable);
      chosen = "unavailable";
    }
    EXPECT_EQ(chosen, c.chosen);
    EXPECT_EQ(
        fs::exists(remembered) ? std::optional(readFile(remembered)) : std::nullopt,
        c.rememberedAfter ? std::optional(std::string(c.rememberedAfter) + "\n") : std::nullopt);
  }
}

}  // namespace
}  // namespace zul
