#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "ZulCore/Support/Bytes.h"

namespace zul {

namespace h264 {
inline constexpr int nalIdrSlice = 5;
inline constexpr int nalSei = 6;
inline constexpr int nalSps = 7;
inline constexpr int nalPps = 8;
inline constexpr int nalAccessUnitDelimiter = 9;

// The NAL units of an Annex-B byte stream (3- or 4-byte start codes), without
// their start codes and trailing zero bytes. Bytes before the first start
// code, and empty units, are skipped.
std::vector<std::span<const std::uint8_t>> splitAnnexB(std::span<const std::uint8_t> stream);

inline int nalType(std::span<const std::uint8_t> unit) {
  return unit.empty() ? -1 : unit[0] & 0x1f;
}
}  // namespace h264

// Rewrites what an encoder library emits into the access units the agent
// sends: every unit behind a 4-byte start code, the latest SPS and PPS in
// front of every IDR access unit and nowhere else, no access-unit delimiters.
class H264AccessUnitWriter {
 public:
  struct Output {
    Bytes annexB;
    bool isKeyFrame = false;
  };

  // Parameter sets announced out of band (the codec's extradata).
  void learnParameterSets(std::span<const std::uint8_t> annexB);
  Output rewrite(std::span<const std::uint8_t> encoded);
  bool hasParameterSets() const { return !sps_.empty() && !pps_.empty(); }

 private:
  Bytes sps_;
  Bytes pps_;
};

}  // namespace zul
