#pragma once

#include <cstdint>
#include <exception>
#include <initializer_list>
#include <string>
#include <string_view>

namespace zul {

// Base of every component's error type. Each component declares its own cases
// and payloads; the text is the case name with its payload, e.g.
// `displayUnavailable(index: 2)` or `encodeFailed(-12902)`, and is what every
// printed failure line shows.
class Error : public std::exception {
 public:
  const char* what() const noexcept override { return text_.c_str(); }
  const std::string& text() const noexcept { return text_; }
  // The case name alone, without its payload: `displayUnavailable`.
  std::string_view caseName() const noexcept {
    return std::string_view(text_).substr(0, text_.find('('));
  }

 protected:
  explicit Error(std::string text) : text_(std::move(text)) {}

 private:
  std::string text_;
};

// What a phone is told of a failure: the case name of one of our errors
// (`badName`), else "failed".
inline std::string errorReason(const std::exception& error) {
  const auto* known = dynamic_cast<const Error*>(&error);
  return known ? std::string(known->caseName()) : std::string("failed");
}

// One payload of an error case, already formatted: labelled or not, strings
// quoted.
struct ErrorField {
  std::string_view label;  // empty for an unlabelled payload
  std::string value;
};

ErrorField field(std::string_view label, std::int64_t value);
ErrorField field(std::string_view label, std::string_view value);
ErrorField field(std::int64_t value);
ErrorField field(std::string_view value);

// "name" or "name(label: value, ...)".
std::string formatErrorCase(std::string_view name, std::initializer_list<ErrorField> fields = {});

}  // namespace zul
