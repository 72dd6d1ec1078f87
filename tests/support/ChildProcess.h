#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace zul::test {

// A helper program started by a test (Xvfb, dbus-daemon, a keyring, an app).
// The destructor terminates it and reaps it, so nothing outlives the test.
class ChildProcess {
 public:
  struct Options {
    std::map<std::string, std::string> env;  // added to (or replacing in) the test's environment
    std::vector<std::string> unsetEnv;
    bool captureStdout = false;  // lines kept as they come: readStdoutLine(), waitForLine()
    bool quiet = true;           // send stderr (and stdout unless captured) to /dev/null
    std::optional<std::string> stdinText;  // written to stdin, which is then closed
    std::map<int, int> fds;                // the child's fd (key) is the test's fd (value)
  };

  ChildProcess(std::vector<std::string> argv, Options options);
  ChildProcess(std::vector<std::string> argv) : ChildProcess(std::move(argv), Options{}) {}
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // The next line of the child's stdout not read yet (without the line
  // feed), or nothing on end of file or time-out.
  std::optional<std::string> readStdoutLine(std::chrono::milliseconds timeout);
  // The first line from index `from` on that contains `text`, its index in
  // *at; nothing on time-out. Leaves readStdoutLine's place alone.
  std::optional<std::string> waitForLine(
      const std::string& text, std::chrono::milliseconds timeout = std::chrono::seconds(60),
      std::size_t from = 0, std::size_t* at = nullptr);
  std::vector<std::string> lines() const;
  std::size_t countContaining(const std::string& text, std::size_t from = 0) const;
  std::string tail(std::size_t count = 40) const;  // the last lines, for failure messages
  // True while the child has not exited.
  bool running();
  // SIGTERM, then SIGKILL after `grace`; returns the wait status.
  int terminate(std::chrono::milliseconds grace = std::chrono::milliseconds(2000));

 private:
  void collect(int fd);

  pid_t pid_ = -1;
  std::optional<int> status_;
  std::thread reader_;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> lines_;
  bool ended_ = false;
  std::size_t read_ = 0;  // lines handed out by readStdoutLine
};

// Looks a program up on PATH.
bool haveProgram(const std::string& name);
// Polls `ready` every 100 ms until it is true; false after `limit`.
bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit);
// What a shell command prints, without surrounding white space.
std::string commandOutput(const std::string& command);

}  // namespace zul::test
