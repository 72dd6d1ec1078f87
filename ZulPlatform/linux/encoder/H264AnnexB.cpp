#include "ZulPlatform/linux/encoder/H264AnnexB.h"

namespace zul {
namespace h264 {

std::vector<std::span<const std::uint8_t>> splitAnnexB(std::span<const std::uint8_t> stream) {
  std::vector<std::span<const std::uint8_t>> units;
  const std::size_t size = stream.size();
  std::size_t unitStart = 0;
  bool inUnit = false;
  auto finish = [&](std::size_t end) {
    while (end > unitStart && stream[end - 1] == 0) --end;  // trailing_zero_8bits
    if (inUnit && end > unitStart) units.push_back(stream.subspan(unitStart, end - unitStart));
  };
  std::size_t i = 0;
  while (i + 3 <= size) {
    if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
      finish(i);
      i += 3;
      unitStart = i;
      inUnit = true;
    } else {
      ++i;
    }
  }
  finish(size);
  return units;
}

}  // namespace h264

namespace {

constexpr std::uint8_t startCode[] = {0, 0, 0, 1};

void append(Bytes& out, std::span<const std::uint8_t> unit) {
  out.insert(out.end(), std::begin(startCode), std::end(startCode));
  out.insert(out.end(), unit.begin(), unit.end());
}

}  // namespace

void H264AccessUnitWriter::learnParameterSets(std::span<const std::uint8_t> annexB) {
  for (auto unit : h264::splitAnnexB(annexB)) {
    if (h264::nalType(unit) == h264::nalSps) sps_.assign(unit.begin(), unit.end());
    if (h264::nalType(unit) == h264::nalPps) pps_.assign(unit.begin(), unit.end());
  }
}

H264AccessUnitWriter::Output H264AccessUnitWriter::rewrite(std::span<const std::uint8_t> encoded) {
  const auto units = h264::splitAnnexB(encoded);
  Output output;
  for (auto unit : units) {
    switch (h264::nalType(unit)) {
      case h264::nalSps:
        sps_.assign(unit.begin(), unit.end());
        break;
      case h264::nalPps:
        pps_.assign(unit.begin(), unit.end());
        break;
      case h264::nalIdrSlice:
        output.isKeyFrame = true;
        break;
      default:
        break;
    }
  }
  output.annexB.reserve(encoded.size() + 16 + (output.isKeyFrame ? sps_.size() + pps_.size() : 0));
  if (output.isKeyFrame) {
    if (!sps_.empty()) append(output.annexB, sps_);
    if (!pps_.empty()) append(output.annexB, pps_);
  }
  for (auto unit : units) {
    const int type = h264::nalType(unit);
    if (type == h264::nalSps || type == h264::nalPps || type == h264::nalAccessUnitDelimiter) {
      continue;
    }
    append(output.annexB, unit);
  }
  return output;
}

}  // namespace zul
