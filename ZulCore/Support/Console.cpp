#include "ZulCore/Support/Console.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace zul {

void makeStdoutUnbuffered() {
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  signal(SIGPIPE, SIG_IGN);
}

namespace {

void outputClosed() {
  static std::atomic<bool> closed{false};
  if (!closed.exchange(true)) kill(getpid(), SIGTERM);
}

}  // namespace

void stopIfOutputClosed() {
  // The writing end of a pipe reports POLLERR once no reader is left.
  pollfd output{STDOUT_FILENO, 0, 0};
  if (poll(&output, 1, 0) == 1 && (output.revents & POLLERR)) outputClosed();
}

bool verboseOutput() {
  static const bool verbose = [] {
    const char* value = std::getenv("ZUL_VERBOSE");
    return value && *value && std::strcmp(value, "0") != 0;
  }();
  return verbose;
}

std::string escapeControlCharacters(std::string_view text) {
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  out.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto c = static_cast<unsigned char>(text[i]);
    const auto next = i + 1 < text.size() ? static_cast<unsigned char>(text[i + 1]) : 0;
    if (c == '\\') {
      out += "\\\\";
    } else if (c == '\n') {
      out += "\\n";
    } else if (c == '\r') {
      out += "\\r";
    } else if (c == '\t') {
      out += "\\t";
    } else if (c < 0x20 || c == 0x7f) {
      out += "\\x";
      out += hex[c >> 4];
      out += hex[c & 15];
    } else if (c == 0xC2 && next >= 0x80 && next <= 0x9F) {  // C1: U+0080..U+009F
      out += "\\u00";
      out += hex[next >> 4];
      out += hex[next & 15];
      ++i;
    } else if (c == 0xE2 && next == 0x80 && i + 2 < text.size() &&
               (text[i + 2] == '\xA8' || text[i + 2] == '\xA9')) {
      out += text[i + 2] == '\xA8' ? "\\u2028" : "\\u2029";
      i += 2;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

void printLine(std::string_view line) {
  std::string buffer = escapeControlCharacters(line);
  buffer.push_back('\n');
  if (std::fwrite(buffer.data(), 1, buffer.size(), stdout) == buffer.size()) return;
  // Nobody reads any more: stop, as SIGTERM would; later lines are lost.
  if (errno == EPIPE) outputClosed();
}

}  // namespace zul
