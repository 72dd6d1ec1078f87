#pragma once

#include <sys/types.h>

#include <chrono>
#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "support/ChildProcess.h"

namespace zul::test {

// Debian's Chromium, headless, with a fresh profile, driven over the DevTools
// protocol on a pipe (no port to pick, nothing downloaded).
class HeadlessChromium {
 public:
  static constexpr const char* program = "/usr/bin/chromium";
  static bool available();

  explicit HeadlessChromium(std::map<std::string, std::string> env = {});
  ~HeadlessChromium();
  HeadlessChromium(const HeadlessChromium&) = delete;
  HeadlessChromium& operator=(const HeadlessChromium&) = delete;

  // One protocol command; throws on an error answer, a closed pipe or time-out.
  nlohmann::json call(const std::string& method,
                      const nlohmann::json& params = nlohmann::json::object(),
                      const std::string& sessionId = {},
                      std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // A new tab at `url`; returns its session id.
  std::string openPage(const std::string& url);
  // Evaluates `expression` in the page, awaiting a promise; returns its value
  // (JSON-serialisable) or throws with the page's exception text.
  nlohmann::json evaluate(const std::string& sessionId, const std::string& expression,
                          std::chrono::milliseconds timeout = std::chrono::seconds(30));
  // Polls `expression` until it is true; false after `limit`.
  bool waitFor(const std::string& sessionId, const std::string& expression,
               std::chrono::milliseconds limit = std::chrono::seconds(60));

 private:
  std::unique_ptr<ChildProcess> process_;
  int toBrowser_ = -1;
  int fromBrowser_ = -1;
  std::string profileDir_;
  std::string pending_;
  int nextId_ = 1;
};

}  // namespace zul::test
