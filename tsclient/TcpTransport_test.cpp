// The raw TCP framing on recorded bytes: the request frame, and how each kind
// of answer a server may send is judged.
#include "tsclient/TcpTransport.h"

#include <gtest/gtest.h>

#include <string>

#include "testing/Hex.h"

namespace {

using namespace testing_support;

TEST(TcpFramingTest, RequestFrameIsLengthFlagAndDer) {
  EXPECT_EQ(toHex(tcpRequestFrame(fromHex("3003020100"))), "00 00 00 06 00 30 03 02 01 00");
  std::vector<unsigned char> large(0x10203, 0x42);
  std::vector<unsigned char> frame = tcpRequestFrame(large);
  ASSERT_EQ(frame.size(), large.size() + 5);
  EXPECT_EQ(toHex(frame.data(), 6), "00 01 02 04 00 42");
}

TEST(TcpFramingTest, RecordedAnswers) {
  const struct {
    const char* name;
    const char* hex;
    uint64_t capacity;
    int result;
    unsigned int offset;
    bool cutShort;
  } cases[] = {
      {"complete", "00000006 05 3003020100", 4096, 0, 5, false},
      {"not working", "0500", 4096, 0, 0, false},
      {"nothing", "", 4096, 0, 5, false},
      {"one byte", "05", 4096, -10, 0, false},
      {"length only", "000000", 4096, -10, 0, false},
      {"header without answer", "00000001 05", 4096, -10, 0, false},
      {"request flag", "00000006 00 3003020100", 4096, -10, 0, false},
      {"other flag", "00000006 04 3003020100", 4096, -10, 0, false},
      {"cut short", "00000010 05 3003020100", 4096, 0, 5, true},
      {"length field says less", "00000002 05 3003020100", 4096, 0, 5, false},
      {"trailing bytes", "00000006 05 3003020100 0000", 4096, 0, 5, false},
      {"fills the buffer", "00000010 05 3003020100", 10, 0, 5, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    std::vector<unsigned char> bytes = fromHex(c.hex);
    TcpReply reply = readTcpReply(bytes.data(), bytes.size(), c.capacity);
    EXPECT_EQ(reply.result, c.result);
    if (c.result != 0) continue;
    EXPECT_EQ(reply.offset, c.offset);
    EXPECT_EQ(reply.cutShort, c.cutShort);
  }
}

}  // namespace
