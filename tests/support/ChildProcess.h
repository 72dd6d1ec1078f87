#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace zul::test {

// A helper program started by a test (Xvfb, dbus-daemon, a keyring, an app).
// The destructor terminates it and reaps it, so nothing outlives the test.
class ChildProcess {
 public:
  struct Options {
    std::map<std::string, std::string> env;  // added to (or replacing in) the test's environment
    std::vector<std::string> unsetEnv;
    bool captureStdout = false;            // read it with readStdoutLine()
    bool quiet = true;                     // send stderr (and stdout unless captured) to /dev/null
    std::optional<std::string> stdinText;  // written to stdin, which is then closed
  };

  ChildProcess(std::vector<std::string> argv, Options options);
  ChildProcess(std::vector<std::string> argv) : ChildProcess(std::move(argv), Options{}) {}
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  pid_t pid() const { return pid_; }
  // One line of the child's stdout (without the line feed), or nothing on
  // end of file or time-out.
  std::optional<std::string> readStdoutLine(std::chrono::milliseconds timeout);
  // True while the child has not exited.
  bool running();
  // SIGTERM, then SIGKILL after `grace`; returns the wait status.
  int terminate(std::chrono::milliseconds grace = std::chrono::milliseconds(2000));

 private:
  pid_t pid_ = -1;
  int stdoutFd_ = -1;
  std::string pending_;
  std::optional<int> status_;
};

// Looks a program up on PATH.
bool haveProgram(const std::string& name);

}  // namespace zul::test
