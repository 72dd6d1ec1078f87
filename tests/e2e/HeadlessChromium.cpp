#include "HeadlessChromium.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace zul::test {

bool HeadlessChromium::available() { return access(program, X_OK) == 0; }

HeadlessChromium::HeadlessChromium(std::map<std::string, std::string> env) {
  char dir[] = "/tmp/zul-chromium-XXXXXX";
  if (!mkdtemp(dir)) throw std::runtime_error("mkdtemp failed");
  profileDir_ = dir;
  int commands[2];
  int replies[2];
  if (pipe2(commands, O_CLOEXEC) != 0 || pipe2(replies, O_CLOEXEC) != 0) {
    throw std::runtime_error("pipe failed");
  }
  ChildProcess::Options options;
  options.env = std::move(env);
  options.quiet = !std::getenv("ZUL_TEST_CHROMIUM_LOG");
  options.fds = {{3, commands[0]}, {4, replies[1]}};  // the browser's DevTools pipe
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{
          program, "--headless", "--no-sandbox", "--disable-gpu", "--no-first-run",
          "--no-default-browser-check", "--disable-background-networking",
          "--disable-component-update", "--disable-sync", "--disable-extensions", "--mute-audio",
          "--autoplay-policy=no-user-gesture-required", "--remote-debugging-pipe",
          "--user-data-dir=" + profileDir_, "about:blank"},
      options);
  close(commands[0]);
  close(replies[1]);
  toBrowser_ = commands[1];
  fromBrowser_ = replies[0];
}

HeadlessChromium::~HeadlessChromium() {
  close(toBrowser_);
  close(fromBrowser_);
  process_.reset();
  std::error_code ignored;
  std::filesystem::remove_all(profileDir_, ignored);
}

nlohmann::json HeadlessChromium::call(const std::string& method, const nlohmann::json& params,
                                      const std::string& sessionId,
                                      std::chrono::milliseconds timeout) {
  const int id = nextId_++;
  nlohmann::json message = {{"id", id}, {"method", method}, {"params", params}};
  if (!sessionId.empty()) message["sessionId"] = sessionId;
  std::string bytes = message.dump();
  bytes.push_back('\0');
  for (std::size_t sent = 0; sent < bytes.size();) {
    const ssize_t n = write(toBrowser_, bytes.data() + sent, bytes.size() - sent);
    if (n <= 0) throw std::runtime_error("browser pipe closed while sending " + method);
    sent += static_cast<std::size_t>(n);
  }
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  while (true) {
    std::size_t end;
    while ((end = pending_.find('\0')) != std::string::npos) {
      auto reply = nlohmann::json::parse(pending_.substr(0, end));
      pending_.erase(0, end + 1);
      if (!reply.contains("id") || reply["id"] != id) continue;  // an event or another reply
      if (reply.contains("error")) {
        throw std::runtime_error(method + " failed: " + reply["error"].dump());
      }
      return reply["result"];
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) throw std::runtime_error(method + " timed out");
    pollfd p{fromBrowser_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[65536];
    const ssize_t n = read(fromBrowser_, buffer, sizeof buffer);
    if (n <= 0) throw std::runtime_error("browser pipe closed while waiting for " + method);
    pending_.append(buffer, static_cast<std::size_t>(n));
  }
}

std::string HeadlessChromium::openPage(const std::string& url) {
  const auto target = call("Target.createTarget", {{"url", url}});
  const auto attached =
      call("Target.attachToTarget", {{"targetId", target["targetId"]}, {"flatten", true}});
  return attached["sessionId"].get<std::string>();
}

nlohmann::json HeadlessChromium::evaluate(const std::string& sessionId,
                                          const std::string& expression,
                                          std::chrono::milliseconds timeout) {
  const auto result =
      call("Runtime.evaluate",
           {{"expression", expression}, {"awaitPromise", true}, {"returnByValue", true}}, sessionId,
           timeout + std::chrono::seconds(5));
  if (result.contains("exceptionDetails")) {
    const auto& details = result["exceptionDetails"];
    std::string text = details.value("text", "exception");
    if (details.contains("exception") && details["exception"].contains("description")) {
      text += ": " + details["exception"]["description"].get<std::string>();
    }
    throw std::runtime_error("page threw: " + text);
  }
  return result["result"].value("value", nlohmann::json());
}

bool HeadlessChromium::waitFor(const std::string& sessionId, const std::string& expression,
                               std::chrono::milliseconds limit) {
  return waitUntil([&] { return evaluate(sessionId, expression) == true; }, limit);
}

}  // namespace zul::test
