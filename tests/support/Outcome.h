#pragma once

#include <string>

namespace zul::test {

// The text of the E that `work` throws, "ok" when it returns; any other
// exception fails the test.
template <typename E, typename Work>
std::string outcome(Work&& work) {
  try {
    work();
    return "ok";
  } catch (const E& error) {
    return error.text();
  }
}

}  // namespace zul::test
