#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace zul {

// SHA-256 of data that streams through, piece by piece.
class Sha256 {
 public:
  Sha256();
  ~Sha256();
  Sha256(const Sha256&) = delete;
  Sha256& operator=(const Sha256&) = delete;

  void update(const std::uint8_t* data, std::size_t size);
  // Lower-case hexadecimal; the hash starts over afterwards.
  std::string hexDigest();

 private:
  struct Context;
  std::unique_ptr<Context> context_;
};

}  // namespace zul
