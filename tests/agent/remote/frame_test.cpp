#include "agent/remote/frame.h"

#include <gtest/gtest.h>

namespace zelta::agent {
namespace {

using Result = FrameDecoder::Result;

Result decode(const Bytes& bytes, Frame& frame) {
  FrameDecoder decoder;
  decoder.pending().append(bytes);
  return decoder.next(frame);
}

TEST(Frame, BytesAreLengthKindNumberAndPayload) {
  EXPECT_EQ(encodeFrame({FrameKind::kTransmit, 0x01020304, Bytes{0xAA, 0xBB}}),
            (Bytes{7, 0, 0, 0, 6, 4, 3, 2, 1, 0xAA, 0xBB}));
  EXPECT_EQ(encodeFrame({FrameKind::kBye}), (Bytes{5, 0, 0, 0, 11, 0, 0, 0, 0}));
}

TEST(Frame, KindsHaveTheirCodes) {
  const FrameKind kinds[] = {FrameKind::kHello,  FrameKind::kCardIn, FrameKind::kCardOut,
                             FrameKind::kReset,  FrameKind::kAtr,    FrameKind::kTransmit,
                             FrameKind::kAnswer, FrameKind::kReady,  FrameKind::kPing,
                             FrameKind::kPong,   FrameKind::kBye};
  std::uint8_t code = 0;
  for (const FrameKind kind : kinds) EXPECT_EQ(encodeFrame({kind})[4], ++code);
}

TEST(Frame, Hello_HasMagicProtocolAndVersion) {
  const Frame hello = helloFrame({1, "1.2"});
  EXPECT_EQ(hello.payload.get(), (Bytes{'Z', 'L', 'T', 'A', 1, 0, 0, 0, '1', '.', '2'}));
  const std::optional<Hello> read = readHello(hello);
  ASSERT_TRUE(read);
  EXPECT_EQ(read->protocol, 1u);
  EXPECT_EQ(read->version, "1.2");
}

TEST(Frame, HelloOfAnotherForm_IsNone) {
  const Bytes good = helloFrame({1, "1.2"}).payload.get();
  EXPECT_FALSE(readHello({FrameKind::kPing, 0, good}));
  EXPECT_FALSE(readHello({FrameKind::kHello, 0, Bytes(good.begin(), good.begin() + 7)}));
  EXPECT_FALSE(readHello({FrameKind::kHello, 0, Bytes(good.size(), 'Z')}));
  EXPECT_FALSE(readHello(helloFrame({1, std::string(65, 'x')})));
  EXPECT_TRUE(readHello(helloFrame({1, std::string(64, 'x')})));
}

TEST(FrameDecoder, FramesThatComeByteByByte_AreWholeAtTheirLast) {
  const Bytes first = encodeFrame({FrameKind::kAnswer, 7, Bytes{1, 2, 3}});
  const Bytes second = encodeFrame({FrameKind::kCardOut, 0});
  FrameDecoder decoder;
  Frame frame;
  for (const Bytes& bytes : {first, second}) {
    for (std::size_t i = 0; i < bytes.size(); ++i) {
      EXPECT_EQ(decoder.next(frame), Result::kMore);
      decoder.pending().append(&bytes[i], 1);
    }
    EXPECT_EQ(decoder.next(frame), Result::kFrame);
  }
  EXPECT_EQ(frame.kind, FrameKind::kCardOut);
  EXPECT_EQ(decoder.pending().size(), 0u);
}

TEST(FrameDecoder, FramesThatComeAtOnce_AreTakenInTheirOrder) {
  FrameDecoder decoder;
  decoder.pending().append(encodeFrame({FrameKind::kAnswer, 7, Bytes{1, 2, 3}}));
  decoder.pending().append(encodeFrame({FrameKind::kPing, 8}));
  Frame frame;
  ASSERT_EQ(decoder.next(frame), Result::kFrame);
  EXPECT_EQ(frame.kind, FrameKind::kAnswer);
  EXPECT_EQ(frame.number, 7u);
  EXPECT_EQ(frame.payload.get(), (Bytes{1, 2, 3}));
  ASSERT_EQ(decoder.next(frame), Result::kFrame);
  EXPECT_EQ(frame.number, 8u);
  EXPECT_EQ(frame.payload.get(), Bytes());
  EXPECT_EQ(decoder.next(frame), Result::kMore);
}

TEST(FrameDecoder, LongestFrame_IsTakenAndNoLonger) {
  Frame frame;
  Bytes longest = encodeFrame({FrameKind::kAnswer, 1, Bytes(kLongestPayload, 0xAB)});
  ASSERT_EQ(decode(longest, frame), Result::kFrame);
  EXPECT_EQ(frame.payload.size(), kLongestPayload);
  storeLittleEndian(longest.data(), loadLittleEndian(longest.data()) + 1);
  longest.push_back(0xAB);
  EXPECT_EQ(decode(longest, frame), Result::kBroken);
}

TEST(FrameDecoder, WhatIsNoFrame_IsBrokenBeforeItIsWhole) {
  Frame frame;
  EXPECT_EQ(decode({4, 0, 0, 0}, frame), Result::kBroken);
  EXPECT_EQ(decode({0xFF, 0xFF, 0xFF, 0xFF}, frame), Result::kBroken);
  EXPECT_EQ(decode({'W', 'e', 'l', 'c', 'o', 'm', 'e'}, frame), Result::kBroken);
  EXPECT_EQ(decode({5, 0, 0, 0, 0}, frame), Result::kBroken);
  EXPECT_EQ(decode({5, 0, 0, 0, 12}, frame), Result::kBroken);
}

}  // namespace
}  // namespace zelta::agent
