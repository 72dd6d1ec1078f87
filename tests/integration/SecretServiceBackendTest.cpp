#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <thread>

#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"
#include "ZulPlatform/linux/secrets/SecretServiceBackend.h"
#include "support/ChildProcess.h"
#include "support/XvfbServer.h"

namespace zul {
namespace {

namespace fs = std::filesystem;
using test::ChildProcess;
using test::SessionBus;

constexpr const char* kService = "dev.zul.agent.mac";

// Sets an environment variable for one scope and restores it afterwards.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (const char* old = std::getenv(name)) old_ = old;
    value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
  }
  ~ScopedEnv() { old_ ? ::setenv(name_, old_->c_str(), 1) : ::unsetenv(name_); }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

// A private session bus with a real GNOME Keyring on it, its files in a
// temporary folder. With a password the login keyring is created and
// unlocked with it; without one the keyring has no default collection.
class PrivateKeyring {
 public:
  explicit PrivateKeyring(std::optional<std::string> password) {
    char pattern[] = "/tmp/zul-keyring-test-XXXXXX";
    if (!::mkdtemp(pattern)) throw std::runtime_error("mkdtemp failed");
    temp_ = pattern;
    for (const char* folder : {"home", "data", "runtime"}) fs::create_directory(temp_ / folder);
    fs::permissions(temp_ / "runtime", fs::perms::owner_all, fs::perm_options::replace);

    bus_ = std::make_unique<SessionBus>();
    ChildProcess::Options options{.env = {{"DBUS_SESSION_BUS_ADDRESS", bus_->address()},
                                          {"HOME", (temp_ / "home").string()},
                                          {"XDG_DATA_HOME", (temp_ / "data").string()},
                                          {"XDG_RUNTIME_DIR", (temp_ / "runtime").string()}},
                                  .unsetEnv = {"DISPLAY", "WAYLAND_DISPLAY"},
                                  .stdinText = password};
    std::vector<std::string> argv = {"gnome-keyring-daemon", "--foreground",
                                     "--components=secrets"};
    if (password) argv.push_back("--unlock");
    daemon_ = std::make_unique<ChildProcess>(argv, options);

    // Wait until our daemon owns the name: a call before that would make the
    // bus start the system's own keyring.
    for (int attempt = 0; attempt < 200; ++attempt) {
      if (onBus("dbus-send --session --print-reply --dest=org.freedesktop.DBus "
                "/org/freedesktop/DBus org.freedesktop.DBus.GetNameOwner "
                "string:org.freedesktop.secrets") == 0) {
        return;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    throw std::runtime_error("gnome-keyring-daemon did not appear on the bus");
  }
  ~PrivateKeyring() {
    daemon_.reset();
    fs::remove_all(temp_);
  }

  const std::string& address() const { return bus_->address(); }
  const fs::path& temp() const { return temp_; }

  // Runs a shell command against this bus; 0 when it succeeded.
  int onBus(const std::string& command) const {
    std::string line =
        "DBUS_SESSION_BUS_ADDRESS='" + bus_->address() + "' " + command + " >/dev/null 2>&1";
    return std::system(line.c_str());
  }

 private:
  fs::path temp_;
  std::unique_ptr<SessionBus> bus_;
  std::unique_ptr<ChildProcess> daemon_;
};

// One unlocked keyring for the whole suite, which the test process talks to
// through DBUS_SESSION_BUS_ADDRESS: libsecret keeps one connection to the
// service per process.
class SecretServiceBackendTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    for (const char* program : {"dbus-daemon", "gnome-keyring-daemon", "dbus-send"}) {
      if (!test::haveProgram(program)) return;
    }
    keyring = new PrivateKeyring("zul-test-password");
    busAddress = new ScopedEnv("DBUS_SESSION_BUS_ADDRESS", keyring->address());
  }
  static void TearDownTestSuite() {
    SecretServiceBackend::resetSharedConnection();
    delete busAddress;
    delete keyring;
  }
  void SetUp() override {
    if (!keyring) GTEST_SKIP() << "dbus or gnome-keyring is not installed";
  }

  static inline PrivateKeyring* keyring = nullptr;
  static inline ScopedEnv* busAddress = nullptr;
};

TEST_F(SecretServiceBackendTest, SavesLoadsReplacesAndRemovesBinarySecrets) {
  SecretServiceBackend backend;
  EXPECT_EQ(backend.load(kService, "binary"), std::nullopt);

  Bytes everyByte;
  for (int i = 0; i < 256; ++i) everyByte.push_back(std::uint8_t(i));
  backend.save(kService, "binary", everyByte);
  EXPECT_EQ(backend.load(kService, "binary"), everyByte);
  EXPECT_EQ(backend.load("other.service", "binary"), std::nullopt);

  const Bytes replacement = {0x00, 0xFF, 0x00};
  backend.save(kService, "binary", replacement);
  EXPECT_EQ(backend.load(kService, "binary"), replacement);

  // Another backend object sees the same item: it lives in the keyring.
  EXPECT_EQ(SecretServiceBackend().load(kService, "binary"), replacement);

  backend.remove(kService, "binary");
  EXPECT_EQ(backend.load(kService, "binary"), std::nullopt);
}

TEST_F(SecretServiceBackendTest, AutomaticChoiceFollowsTheSessionBusThenKeepsToIt) {
  ScopedEnv choice("ZUL_SECRET_BACKEND", std::nullopt);
  ScopedEnv dataHome("XDG_DATA_HOME", (keyring->temp() / "data").string());
  auto chosen = makeSecretBackend();
  EXPECT_EQ(chosen->name(), "secret-service");
  EXPECT_EQ(makeSecretBackend(), chosen);  // the windows and the agent share it
  // Its updates take turns with other processes through a lock file.
  EXPECT_NE(chosen->lockForUpdate(kService, "trusted-devices"), nullptr);

  ScopedEnv runtime("XDG_RUNTIME_DIR", (keyring->temp() / "runtime").string());
  {
    ScopedEnv nowhere("DBUS_SESSION_BUS_ADDRESS",
                      "unix:path=" + (keyring->temp() / "no-bus").string());
    // The identity lives in the Secret Service: no silent move to the file store.
    try {
      makeSecretBackend();
      ADD_FAILURE() << "fell back to another store";
    } catch (const SecretStoreError& error) {
      EXPECT_NE(error.reason().find("ZUL_SECRET_BACKEND=file"), std::string::npos);
    }
    // A machine that never chose falls back to the file store.
    ScopedEnv freshData("XDG_DATA_HOME", (keyring->temp() / "fresh").string());
    auto fallback = makeSecretBackend();
    EXPECT_EQ(fallback->name(), "file");
    const auto line = describeSecretBackendChoice(*fallback);
    EXPECT_NE(line.find((keyring->temp() / "fresh" / "zul-agent" / "secrets").string()),
              std::string::npos)
        << line;
  }
}

TEST_F(SecretServiceBackendTest, KeyringWithoutDefaultCollectionIsLeftForTheFileStore) {
  // Choosing it would make the first save ask for a new keyring in a dialog.
  PrivateKeyring fresh(std::nullopt);
  ScopedEnv address("DBUS_SESSION_BUS_ADDRESS", fresh.address());
  ScopedEnv dataHome("XDG_DATA_HOME", (fresh.temp() / "data").string());
  ScopedEnv choice("ZUL_SECRET_BACKEND", "auto");
  EXPECT_FALSE(SecretServiceBackend::probe(std::chrono::seconds(5)).has_value());
  auto failure = SecretServiceBackend::probe(std::chrono::seconds(5), true);
  ASSERT_TRUE(failure.has_value());
  auto chosen = makeSecretBackend();
  EXPECT_EQ(chosen->name(), "file");
  EXPECT_NE(describeSecretBackendChoice(*chosen).find(*failure), std::string::npos)
      << describeSecretBackendChoice(*chosen);
}

// Last: it locks the keyring for good.
TEST_F(SecretServiceBackendTest, LockedKeyringIsAnErrorNotAnAbsentSecret) {
  SecretServiceBackend backend;
  backend.save(kService, "locked", toBytes("kept"));
  ASSERT_EQ(keyring->onBus("dbus-send --session --print-reply --dest=org.freedesktop.secrets "
                           "/org/freedesktop/secrets org.freedesktop.Secret.Service.Lock "
                           "array:objpath:/org/freedesktop/secrets/collection/login"),
            0);
  EXPECT_THROW(backend.load(kService, "locked"), SecretStoreError);
  EXPECT_THROW(backend.save(kService, "locked", toBytes("new")), SecretStoreError);
  backend.remove(kService, "locked");  // never fails, even locked
}

}  // namespace
}  // namespace zul
