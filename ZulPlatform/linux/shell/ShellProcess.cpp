#include "ZulPlatform/linux/shell/ShellProcess.h"

#include <fcntl.h>
#include <pty.h>
#include <pwd.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace zul {
namespace {

// Sends `signal` to every live process of the terminal's session: the shell's
// own group and the jobs it started in groups of their own (which a signal
// to the shell's group misses, and which the shell forwards its hang-up to
// only if it gets to run before it is killed). Returns how many it reached.
int signalSession(pid_t session, int signal) {
  int reached = 0;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator("/proc", error)) {
    const std::string name = entry.path().filename();
    if (name.empty() || name.find_first_not_of("0123456789") != std::string::npos) continue;
    std::ifstream file(entry.path() / "stat");
    std::string stat((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    // pid (comm) state ppid pgrp session ...; comm may hold spaces and parentheses.
    const auto end = stat.rfind(')');
    if (end == std::string::npos) continue;
    std::istringstream fields(stat.substr(end + 1));
    char state = 0;
    long parent = 0, group = 0, sessionId = 0;
    if (!(fields >> state >> parent >> group >> sessionId)) continue;
    if (sessionId != session || state == 'Z') continue;
    if (::kill(pid_t(std::stol(name)), signal) == 0) ++reached;
  }
  return reached;
}

}  // namespace

ShellError ShellError::notAllowed(const std::string& shell) {
  return {Case::notAllowed, formatErrorCase("notAllowed", {field(shell)})};
}
ShellError ShellError::startFailed(const std::string& reason) {
  return {Case::startFailed, formatErrorCase("startFailed", {field(reason)})};
}

std::string ShellProcess::loginShell() {
  const passwd* user = ::getpwuid(::getuid());
  if (user && user->pw_shell && *user->pw_shell && ::access(user->pw_shell, X_OK) == 0) {
    return user->pw_shell;
  }
  return "/bin/sh";
}

std::vector<std::string> ShellProcess::availableShells() {
  std::vector<std::string> shells{loginShell()};
  std::ifstream list("/etc/shells");
  for (std::string line; std::getline(list, line);) {
    if (line.empty() || line[0] != '/' || ::access(line.c_str(), X_OK) != 0) continue;
    if (std::find(shells.begin(), shells.end(), line) == shells.end()) shells.push_back(line);
  }
  return shells;
}

ShellProcess::ShellProcess(const std::string& shell, int columns, int rows) {
  const auto allowed = availableShells();
  if (std::find(allowed.begin(), allowed.end(), shell) == allowed.end()) {
    throw ShellError::notAllowed(shell);
  }
  const passwd* user = ::getpwuid(::getuid());
  const std::string home = user && user->pw_dir ? user->pw_dir : "/";
  const std::string name = user && user->pw_name ? user->pw_name : "";
  const char* lang = std::getenv("LANG");
  // Built before the fork: the child only execs.
  std::vector<std::string> environment = {
      "TERM=xterm-256color",
      "HOME=" + home,
      "USER=" + name,
      "LOGNAME=" + name,
      "SHELL=" + shell,
      "PATH=/usr/local/bin:/usr/bin:/bin:/usr/local/sbin:/usr/sbin:/sbin",
      std::string("LANG=") + (lang && *lang ? lang : "C.UTF-8"),
  };
  std::vector<char*> envp;
  for (auto& entry : environment) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string argv0 = "-" + shell.substr(shell.rfind('/') + 1);  // a login shell
  char* argv[] = {argv0.data(), nullptr};
  winsize size{};
  size.ws_col = static_cast<unsigned short>(std::clamp(columns, 2, 1000));
  size.ws_row = static_cast<unsigned short>(std::clamp(rows, 2, 1000));
  pid_ = ::forkpty(&master_, nullptr, nullptr, &size);
  if (pid_ < 0) throw ShellError::startFailed(std::strerror(errno));
  if (pid_ == 0) {
    // The child: its own session and terminal (forkpty), the home folder,
    // no descriptor of the agent's, default signals.
    for (int fd = 3; fd < 1024; ++fd) ::close(fd);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE, SIGCHLD, SIGQUIT})
      ::signal(signal, SIG_DFL);
    if (::chdir(home.c_str()) != 0 && ::chdir("/") != 0) ::_exit(127);
    ::execve(shell.c_str(), argv, envp.data());
    ::_exit(127);
  }
  ::fcntl(master_, F_SETFL, ::fcntl(master_, F_GETFL) | O_NONBLOCK);
  ::fcntl(master_, F_SETFD, FD_CLOEXEC);
}

ShellProcess::~ShellProcess() {
  hangUp();
  if (master_ >= 0) ::close(master_);
}

void ShellProcess::write(const Bytes& input) {
  std::size_t done = 0;
  auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  while (done < input.size() && std::chrono::steady_clock::now() < deadline) {
    const ssize_t n = ::write(master_, input.data() + done, input.size() - done);
    if (n > 0) {
      done += std::size_t(n);
    } else if (n < 0 && (errno == EAGAIN || errno == EINTR)) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      return;  // the shell is gone
    }
  }
}

void ShellProcess::resize(int columns, int rows) {
  winsize size{};
  size.ws_col = static_cast<unsigned short>(std::clamp(columns, 2, 1000));
  size.ws_row = static_cast<unsigned short>(std::clamp(rows, 2, 1000));
  ::ioctl(master_, TIOCSWINSZ, &size);
}

bool ShellProcess::read(std::string& out, std::size_t limit) {
  // A terminal hands out at most 4 KiB a read: read on while there is more,
  // for a wait in poll() between two reads would hold a fast writer to a
  // crawl.
  char chunk[16 * 1024];
  std::size_t got = 0;
  while (got < limit) {
    const ssize_t n = ::read(master_, chunk, std::min(limit - got, sizeof chunk));
    if (n > 0) {
      out.append(chunk, std::size_t(n));
      got += std::size_t(n);
      continue;
    }
    // EIO: the last process of the terminal is gone (what came before it
    // is handed out first).
    return got > 0 || (n < 0 && (errno == EAGAIN || errno == EINTR));
  }
  return true;
}

std::optional<int> ShellProcess::exitStatus() {
  if (status_) return status_;
  int status = 0;
  if (pid_ > 0 && ::waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return status_;
}

void ShellProcess::hangUp() {
  if (pid_ <= 0 || exitStatus()) return;
  // The shell leads the terminal's session (forkpty): a hang-up reaches all
  // of it, and stopped jobs are continued so that they see it.
  signalSession(pid_, SIGHUP);
  signalSession(pid_, SIGCONT);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
  auto ended = [&] { return exitStatus() && signalSession(pid_, 0) == 0; };
  while (!ended() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!exitStatus()) {
    signalSession(pid_, SIGKILL);
    int status = 0;
    ::waitpid(pid_, &status, 0);
    status_ = 128 + SIGKILL;
  } else {
    // What ignored the hang-up (nohup) does not outlive the session either.
    signalSession(pid_, SIGKILL);
  }
}

}  // namespace zul
