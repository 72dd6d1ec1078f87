#include "ZulCore/Support/Console.h"

#include <cstdio>
#include <string>

namespace zul {

void makeStdoutUnbuffered() { std::setvbuf(stdout, nullptr, _IONBF, 0); }

void printLine(std::string_view line) {
  std::string buffer;
  buffer.reserve(line.size() + 1);
  buffer.append(line);
  buffer.push_back('\n');
  std::fwrite(buffer.data(), 1, buffer.size(), stdout);
}

}  // namespace zul
