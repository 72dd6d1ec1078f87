#include "ZulCore/Trust/Base64Url.h"

#include <array>
#include <cstdint>

namespace zul::Base64Url {
namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";

constexpr std::int8_t kPad = -2;
constexpr std::int8_t kInvalid = -1;

// Value of each character after "-" -> "+" and "_" -> "/": both spellings of
// the two last digits decode the same.
constexpr std::array<std::int8_t, 256> makeTable() {
  std::array<std::int8_t, 256> table{};
  for (auto& v : table) v = kInvalid;
  for (int i = 0; i < 64; ++i) table[static_cast<unsigned char>(kAlphabet[i])] = std::int8_t(i);
  table['+'] = 62;
  table['/'] = 63;
  table['='] = kPad;
  return table;
}
constexpr auto kTable = makeTable();

}  // namespace

std::string encode(const Bytes& data) {
  std::string out;
  out.reserve((data.size() + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= data.size(); i += 3) {
    std::uint32_t n = (std::uint32_t(data[i]) << 16) | (std::uint32_t(data[i + 1]) << 8) |
                      std::uint32_t(data[i + 2]);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
    out += kAlphabet[n & 63];
  }
  std::size_t rest = data.size() - i;
  if (rest == 1) {
    std::uint32_t n = std::uint32_t(data[i]) << 16;
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
  } else if (rest == 2) {
    std::uint32_t n = (std::uint32_t(data[i]) << 16) | (std::uint32_t(data[i + 1]) << 8);
    out += kAlphabet[(n >> 18) & 63];
    out += kAlphabet[(n >> 12) & 63];
    out += kAlphabet[(n >> 6) & 63];
  }
  return out;
}

std::optional<Bytes> decode(std::string_view text) {
  // Pad to a whole number of quartets, then decode strictly as base64. A
  // remainder of 1 becomes "x===", which no quartet can be.
  std::string padded(text);
  if (std::size_t r = padded.size() % 4; r != 0) padded.append(4 - r, '=');

  Bytes out;
  out.reserve(padded.size() / 4 * 3);
  for (std::size_t q = 0; q < padded.size(); q += 4) {
    const bool last = q + 4 == padded.size();
    std::int8_t v[4];
    for (int k = 0; k < 4; ++k) v[k] = kTable[static_cast<unsigned char>(padded[q + k])];
    for (int k = 0; k < 4; ++k)
      if (v[k] == kInvalid) return std::nullopt;
    // "=" may only end the last quartet, and at most two of them.
    if (v[0] == kPad || v[1] == kPad) return std::nullopt;
    if (v[2] == kPad && v[3] != kPad) return std::nullopt;
    if ((v[2] == kPad || v[3] == kPad) && !last) return std::nullopt;

    std::uint32_t n = (std::uint32_t(v[0]) << 18) | (std::uint32_t(v[1]) << 12);
    out.push_back(std::uint8_t(n >> 16));
    if (v[2] == kPad) continue;
    n |= std::uint32_t(v[2]) << 6;
    out.push_back(std::uint8_t(n >> 8));
    if (v[3] == kPad) continue;
    n |= std::uint32_t(v[3]);
    out.push_back(std::uint8_t(n));
  }
  return out;
}

}  // namespace zul::Base64Url
