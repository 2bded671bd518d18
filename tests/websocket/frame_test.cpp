// Frames: heads of every form read and written, and masks, against frames put together byte by byte.
#include "websocket/frame.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "support/guarded_buffer.h"
#include "websocket/plain_frame.h"

namespace vel::test {
namespace {

using Step = FrameReading::Step;

TEST(Frame, IsReadAtEveryLengthAndAsksForOnePartAfterTheOther) {
  for (const size_t length : {0U, 1U, 125U, 126U, 127U, 65535U, 65536U, 70000U}) {
    for (const int length_bytes : {-1, 2, 8}) {
      for (const bool is_masked : {true, false}) {
        if (length > 65535 && length_bytes == 2) continue;
        const std::string payload(length, 'p');
        const std::string bytes = bytesOf({2, payload, is_masked, true, 5, length_bytes});
        const size_t head = bytes.size() - length;
        const size_t length_end = head - (is_masked ? 4 : 0);
        for (size_t size = 0; size <= head + 1; ++size) {
          const size_t there = size <= head ? size : bytes.size();
          const GuardedBuffer buffer(bytes.substr(0, there));
          const FrameReading reading = readFrame(buffer.view(), {is_masked, false});
          const size_t needed = there < 2            ? 2
                                : there < length_end ? length_end
                                : there < head       ? head
                                                     : bytes.size();
          ASSERT_EQ(reading.needed, needed) << length << " bytes, " << there << " of them there";
          ASSERT_EQ(reading.step, there == bytes.size() ? Step::kFrame : Step::kMore);
          EXPECT_EQ(reading.payloadLength, reading.step == Step::kFrame ? length : 0);
        }
      }
    }
  }
}

TEST(Frame, OfAnAnnouncedLengthBeyondAllMemoryIsWaitedFor) {
  for (const char* length :
       {"\x40\0\0\0\0\0\0\0", "\x80\0\0\0\0\0\0\0", "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF"}) {
    const std::string head = std::string("\x82\xFF") + std::string(length, 8) + "keyz";
    const FrameReading reading = readFrame(head, {true, false});
    EXPECT_EQ(reading.step, Step::kMore);
    EXPECT_GE(reading.needed, uint64_t{1} << 62);
  }
}

TEST(Frame, IsJudgedByItsFirstTwoBytes) {
  const std::string_view to_client = "All data frames sent to a client must not be masked";
  const std::string_view from_client = "All data frames sent from a client must be masked";
  const std::string_view later = "All data frames after the initial data frame must have opcode 0";
  const std::string_view first = "Received data frame without an opcode";
  const std::string_view control = "Control frames cannot be fragmented";
  struct Case {
    uint8_t first, second;
    bool isServer, isInMessage;
    std::string_view fault;
  };
  const Case cases[] = {
      {0x81, 0x80, true, false, ""},          {0x81, 0x00, true, false, from_client},
      {0x81, 0x00, false, false, ""},         {0x81, 0x80, false, false, to_client},
      {0x89, 0x00, true, false, from_client}, {0x08, 0x80, false, false, to_client},
      {0x08, 0x80, true, false, control},     {0x09, 0x80, true, true, control},
      {0x0A, 0x80, true, false, control},     {0x0B, 0x80, true, false, ""},
      {0x89, 0x80, true, true, ""},           {0x80, 0x80, true, false, first},
      {0x00, 0x80, true, false, first},       {0x00, 0x80, true, true, ""},
      {0x80, 0x80, true, true, ""},           {0x01, 0x80, true, true, later},
      {0x8F, 0x80, true, true, later},        {0xF3, 0x80, true, false, ""},
      {0x81, 0x7F, true, false, from_client}, {0x00, 0x7E, true, true, from_client},
  };
  for (const Case& entry : cases) {
    const std::string bytes{static_cast<char>(entry.first), static_cast<char>(entry.second)};
    const FrameReading reading = readFrame(bytes, {entry.isServer, entry.isInMessage});
    EXPECT_EQ(textOf(reading.fault), entry.fault) << int{entry.first} << " " << int{entry.second};
    EXPECT_EQ(reading.step == Step::kWrong, !entry.fault.empty());
  }
}

TEST(Frame, IsWrittenWithTheShortestLength) {
  const MaskingKey key{'k', 'e', 'y', 'z'};
  for (const uint64_t length : {0U, 125U, 126U, 65535U, 65536U}) {
    const std::string bytes = unmasked(0x0A, std::string(length, 'p'));
    const std::string head = bytes.substr(0, bytes.size() - length);
    EXPECT_EQ(FrameHead(0x0A, length).view(), head);
    std::string with_key = head + "keyz";
    with_key[1] = static_cast<char>(with_key[1] | 0x80);
    EXPECT_EQ(FrameHead(0x0A, length, key).view(), with_key);
  }
  EXPECT_EQ(FrameHead(2, uint64_t{1} << 40).view(),
            std::string_view("\x82\x7F\0\0\1\0\0\0\0\0", 10));
  // The opcode is taken as it is.
  EXPECT_EQ(FrameHead(0x7F, 0).view(), std::string_view("\xFF\0", 2));
}

TEST(Mask, IsItsOwnInverseAtEveryLengthAndPlace) {
  const MaskingKey key{1, 0x80, 3, 0xFF};
  for (size_t length = 0; length < 140; ++length) {
    for (size_t shift = 0; shift < 9; ++shift) {
      std::string bytes(shift + length, 'a');
      for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7);
      std::string plain = bytes;
      for (size_t i = 0; i < length; ++i) plain[shift + i] ^= static_cast<char>(key[i % 4]);
      std::string other(length, '\0');
      mask(other.data(), bytes.data() + shift, length, key);
      EXPECT_EQ(other, plain.substr(shift));
      mask(bytes.data() + shift, bytes.data() + shift, length, key);
      ASSERT_EQ(bytes, plain) << length << " bytes from " << shift << " on";
    }
  }
}

}  // namespace
}  // namespace vel::test
