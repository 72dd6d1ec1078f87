#include <gtest/gtest.h>

#include "ZulPlatform/linux/encoder/H264AnnexB.h"

namespace zul {
namespace {

Bytes units(std::initializer_list<Bytes> list, bool shortStartCodes = false) {
  Bytes out;
  for (const auto& unit : list) {
    if (!shortStartCodes) out.push_back(0);
    out.insert(out.end(), {0, 0, 1});
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

const Bytes sps{0x67, 0x42, 0xc0, 0x1f};
const Bytes pps{0x68, 0xce, 0x3c, 0x80};
const Bytes idr{0x65, 0x88, 0x84, 0x00, 0x21};
const Bytes slice{0x41, 0x9a, 0x02};
const Bytes sei{0x06, 0x05, 0x01, 0x80};
const Bytes aud{0x09, 0xf0};

TEST(H264AnnexBTest, SplitsOnThreeAndFourByteStartCodesAndDropsTrailingZeros) {
  Bytes stream{0xff, 0xee};  // garbage before the first start code
  auto body = units({sps, pps});
  stream.insert(stream.end(), body.begin(), body.end());
  auto tail = units({idr}, /*shortStartCodes=*/true);
  stream.insert(stream.end(), tail.begin(), tail.end());
  stream.insert(stream.end(), {0, 0});  // trailing_zero_8bits
  auto parts = h264::splitAnnexB(stream);
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(Bytes(parts[0].begin(), parts[0].end()), sps);
  EXPECT_EQ(Bytes(parts[1].begin(), parts[1].end()), pps);
  EXPECT_EQ(Bytes(parts[2].begin(), parts[2].end()), idr);
  EXPECT_TRUE(h264::splitAnnexB(Bytes{}).empty());
  EXPECT_TRUE(h264::splitAnnexB(Bytes{0, 0, 1}).empty());
  EXPECT_TRUE(h264::splitAnnexB(Bytes{1, 2, 3, 0, 0}).empty());
}

TEST(H264AnnexBTest, ParameterSetsComeBeforeEveryKeyFrameAndNowhereElse) {
  struct Row {
    const char* name;
    Bytes encoded;
    Bytes expected;
    bool key;
  };
  H264AccessUnitWriter writer;
  const Row rows[] = {
      // The encoder's own order (SEI first, AUD) is normalised.
      {"first key frame", units({aud, sei, sps, pps, idr}), units({sps, pps, sei, idr}), true},
      {"inter frame", units({slice}, true), units({slice}), false},
      {"inter frame with stray parameter sets", units({sps, pps, slice}), units({slice}), false},
      // A key frame without in-band parameter sets gets the latest ones.
      {"forced key frame", units({idr}), units({sps, pps, idr}), true},
  };
  for (const auto& row : rows) {
    auto out = writer.rewrite(row.encoded);
    EXPECT_EQ(out.annexB, row.expected) << row.name;
    EXPECT_EQ(out.isKeyFrame, row.key) << row.name;
  }
}

TEST(H264AnnexBTest, ParameterSetsLearnedFromExtradataAndReplacedByNewerOnes) {
  H264AccessUnitWriter writer;
  EXPECT_FALSE(writer.hasParameterSets());
  writer.learnParameterSets(units({sps, pps}));
  EXPECT_TRUE(writer.hasParameterSets());
  const Bytes newerSps{0x67, 0x42, 0xc0, 0x28};
  writer.rewrite(units({newerSps, pps, idr}));
  EXPECT_EQ(writer.rewrite(units({idr})).annexB, units({newerSps, pps, idr}));
}

}  // namespace
}  // namespace zul
