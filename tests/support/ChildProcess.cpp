#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace zul::test {

ChildProcess::ChildProcess(std::vector<std::string> argv, Options options) {
  if (argv.empty()) throw std::invalid_argument("ChildProcess: empty argv");
  int out[2] = {-1, -1};
  int in[2] = {-1, -1};
  if (options.captureStdout && pipe2(out, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  if (options.stdinText && pipe2(in, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");

  // Build everything the child needs before fork: only async-signal-safe calls after it.
  std::map<std::string, std::string> env;
  for (char** e = environ; *e; ++e) {
    std::string kv(*e);
    auto eq = kv.find('=');
    if (eq != std::string::npos) env[kv.substr(0, eq)] = kv.substr(eq + 1);
  }
  for (const auto& name : options.unsetEnv) env.erase(name);
  for (const auto& [k, v] : options.env) env[k] = v;
  std::vector<std::string> envStrings;
  for (const auto& [k, v] : env) envStrings.push_back(k + "=" + v);
  std::vector<char*> envp;
  for (auto& s : envStrings) envp.push_back(s.data());
  envp.push_back(nullptr);
  std::vector<char*> args;
  for (auto& a : argv) args.push_back(a.data());
  args.push_back(nullptr);

  pid_ = fork();
  if (pid_ < 0) throw std::runtime_error("fork failed");
  if (pid_ == 0) {
    setpgid(0, 0);
    int devnull = open("/dev/null", O_RDWR);
    dup2(options.stdinText ? in[0] : devnull, 0);
    if (options.captureStdout) {
      dup2(out[1], 1);
    } else if (options.quiet) {
      dup2(devnull, 1);
    }
    if (options.quiet) dup2(devnull, 2);
    execvpe(args[0], args.data(), envp.data());
    _exit(127);
  }
  if (options.captureStdout) {
    close(out[1]);
    stdoutFd_ = out[0];
  }
  if (options.stdinText) {
    close(in[0]);
    const std::string& text = *options.stdinText;
    std::size_t done = 0;
    while (done < text.size()) {
      ssize_t n = write(in[1], text.data() + done, text.size() - done);
      if (n <= 0) break;
      done += static_cast<std::size_t>(n);
    }
    close(in[1]);
  }
}

ChildProcess::~ChildProcess() {
  terminate();
  if (stdoutFd_ >= 0) close(stdoutFd_);
}

std::optional<std::string> ChildProcess::readStdoutLine(std::chrono::milliseconds timeout) {
  if (stdoutFd_ < 0) return std::nullopt;
  auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    auto nl = pending_.find('\n');
    if (nl != std::string::npos) {
      std::string line = pending_.substr(0, nl);
      pending_.erase(0, nl + 1);
      return line;
    }
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) return std::nullopt;
    pollfd p{stdoutFd_, POLLIN, 0};
    int r = poll(&p, 1, static_cast<int>(left.count()));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return std::nullopt;
    char buf[4096];
    ssize_t n = read(stdoutFd_, buf, sizeof buf);
    if (n <= 0) {
      if (pending_.empty()) return std::nullopt;
      std::string line;
      line.swap(pending_);
      return line;
    }
    pending_.append(buf, static_cast<std::size_t>(n));
  }
}

bool ChildProcess::running() {
  if (status_ || pid_ <= 0) return false;
  int status = 0;
  pid_t r = waitpid(pid_, &status, WNOHANG);
  if (r == pid_) {
    status_ = status;
    return false;
  }
  return true;
}

int ChildProcess::terminate(std::chrono::milliseconds grace) {
  if (pid_ <= 0) return -1;
  if (!running()) return *status_;
  // The child leads its own process group: take its children with it.
  kill(-pid_, SIGTERM);
  auto deadline = std::chrono::steady_clock::now() + grace;
  while (std::chrono::steady_clock::now() < deadline) {
    if (!running()) return *status_;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  kill(-pid_, SIGKILL);
  int status = 0;
  waitpid(pid_, &status, 0);
  status_ = status;
  return status;
}

bool haveProgram(const std::string& name) {
  const char* path = std::getenv("PATH");
  if (!path) return false;
  std::string p(path);
  std::size_t start = 0;
  while (start <= p.size()) {
    auto end = p.find(':', start);
    if (end == std::string::npos) end = p.size();
    std::filesystem::path candidate = std::filesystem::path(p.substr(start, end - start)) / name;
    if (access(candidate.c_str(), X_OK) == 0) return true;
    start = end + 1;
  }
  return false;
}

}  // namespace zul::test
