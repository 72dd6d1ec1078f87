#include "support/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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
    for (const auto& [childFd, fd] : options.fds) {
      if (childFd == fd) fcntl(fd, F_SETFD, 0);  // dup2 would leave close-on-exec set
      dup2(fd, childFd);
    }
    execvpe(args[0], args.data(), envp.data());
    _exit(127);
  }
  if (options.captureStdout) {
    close(out[1]);
    reader_ = std::thread([this, fd = out[0]] { collect(fd); });
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
  stopping_ = true;
  if (reader_.joinable()) reader_.join();
}

// On its own thread, so that a child never blocks on a full pipe and a test
// can look back at everything it printed.
void ChildProcess::collect(int fd) {
  std::string pending;
  char buffer[4096];
  while (!stopping_) {
    pollfd p{fd, POLLIN, 0};
    const int r = poll(&p, 1, 200);
    if (r < 0 && errno == EINTR) continue;
    if (r == 0) continue;
    const ssize_t n = r > 0 ? read(fd, buffer, sizeof buffer) : -1;
    std::lock_guard lock(mutex_);
    if (n <= 0) {
      if (!pending.empty()) lines_.push_back(pending);
      ended_ = true;
      changed_.notify_all();
      break;
    }
    pending.append(buffer, static_cast<std::size_t>(n));
    for (auto nl = pending.find('\n'); nl != std::string::npos; nl = pending.find('\n')) {
      lines_.push_back(pending.substr(0, nl));
      pending.erase(0, nl + 1);
    }
    changed_.notify_all();
  }
  close(fd);
}

std::optional<std::string> ChildProcess::readStdoutLine(std::chrono::milliseconds timeout) {
  std::unique_lock lock(mutex_);
  changed_.wait_for(lock, timeout, [&] { return read_ < lines_.size() || ended_; });
  if (read_ >= lines_.size()) return std::nullopt;
  return lines_[read_++];
}

std::optional<std::string> ChildProcess::waitForLine(const std::string& text,
                                                     std::chrono::milliseconds timeout,
                                                     std::size_t from, std::size_t* at) {
  std::unique_lock lock(mutex_);
  std::optional<std::string> found;
  changed_.wait_for(lock, timeout, [&] {
    for (std::size_t i = from; i < lines_.size(); ++i) {
      if (lines_[i].find(text) == std::string::npos) continue;
      found = lines_[i];
      if (at) *at = i;
      return true;
    }
    return ended_;
  });
  return found;
}

std::vector<std::string> ChildProcess::lines() const {
  std::lock_guard lock(mutex_);
  return lines_;
}

std::size_t ChildProcess::countContaining(const std::string& text, std::size_t from) const {
  std::lock_guard lock(mutex_);
  std::size_t count = 0;
  for (std::size_t i = from; i < lines_.size(); ++i) {
    count += lines_[i].find(text) != std::string::npos;
  }
  return count;
}

std::string ChildProcess::tail(std::size_t count) const {
  std::lock_guard lock(mutex_);
  std::string out;
  for (std::size_t i = lines_.size() > count ? lines_.size() - count : 0; i < lines_.size(); ++i) {
    out += lines_[i] + "\n";
  }
  return out;
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

bool waitUntil(const std::function<bool()>& ready, std::chrono::milliseconds limit) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!ready()) {
    if (std::chrono::steady_clock::now() >= deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return true;
}

std::string commandOutput(const std::string& command) {
  std::string out;
  if (FILE* pipe = popen(command.c_str(), "r")) {
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe)) out += buffer;
    pclose(pipe);
  }
  const auto first = out.find_first_not_of(" \n");
  return first == std::string::npos ? ""
                                    : out.substr(first, out.find_last_not_of(" \n") - first + 1);
}

bool haveProgram(const std::string& name) {
  return std::system(("command -v '" + name + "' >/dev/null 2>&1").c_str()) == 0;
}

}  // namespace zul::test
