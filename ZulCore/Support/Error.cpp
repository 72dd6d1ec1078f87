#include "ZulCore/Support/Error.h"

namespace zul {
namespace {

std::string quoted(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 2);
  out += '"';
  for (char c : s) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  out += '"';
  return out;
}

}  // namespace

ErrorField field(std::string_view label, std::int64_t value) {
  return {label, std::to_string(value)};
}
ErrorField field(std::string_view label, std::string_view value) { return {label, quoted(value)}; }
ErrorField field(std::int64_t value) { return {{}, std::to_string(value)}; }
ErrorField field(std::string_view value) { return {{}, quoted(value)}; }

std::string formatErrorCase(std::string_view name, std::initializer_list<ErrorField> fields) {
  std::string out(name);
  if (fields.size() == 0) return out;
  out += '(';
  bool first = true;
  for (const auto& f : fields) {
    if (!first) out += ", ";
    first = false;
    if (!f.label.empty()) {
      out += f.label;
      out += ": ";
    }
    out += f.value;
  }
  out += ')';
  return out;
}

}  // namespace zul
