#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"

namespace zul {

class ShellError : public Error {
 public:
  enum class Case { notAllowed, startFailed };
  // A shell that is not one of availableShells().
  static ShellError notAllowed(const std::string& shell);
  static ShellError startFailed(const std::string& reason);
  Case kind() const { return kind_; }

 private:
  ShellError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// A login shell of this user on a pseudo-terminal of its own (forkpty): in
// the home folder, with a clean environment (TERM=xterm-256color, the user's
// HOME, USER, LOGNAME, SHELL, PATH and LANG; nothing of the agent's own).
// Its process group is hung up (SIGHUP, SIGKILL 2 s later) and reaped when
// the object goes.
class ShellProcess {
 public:
  // The shells of /etc/shells that exist, the user's login shell first.
  static std::vector<std::string> availableShells();
  static std::string loginShell();

  // Throws ShellError.
  ShellProcess(const std::string& shell, int columns, int rows);
  ~ShellProcess();
  ShellProcess(const ShellProcess&) = delete;
  ShellProcess& operator=(const ShellProcess&) = delete;

  // The terminal's side the agent reads and writes (non-blocking).
  int fd() const { return master_; }
  pid_t pid() const { return pid_; }
  void write(const Bytes& input);
  void resize(int columns, int rows);
  // Appends what is there (at most `limit` bytes) to `out`; false at the
  // terminal's end (the shell exited) when nothing came before it.
  bool read(std::string& out, std::size_t limit);
  // The shell's exit status once it ended (reaped here); nothing before.
  std::optional<int> exitStatus();
  // SIGHUP to every process of the terminal's session (jobs in groups of
  // their own too), SIGKILL to what is left after 2 s; the shell reaped.
  void hangUp();

 private:
  int master_ = -1;
  pid_t pid_ = -1;
  std::optional<int> status_;
};

}  // namespace zul
