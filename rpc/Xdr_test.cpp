#include "rpc/Xdr.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "testing/Hex.h"
#include "testing/LogCapture.h"

using testing_support::fromHex;
using testing_support::toHex;

namespace {

// Encodes with fn into a buffer of size bytes; returns the bytes written, or
// "FAIL" when the routine failed.
template <typename Fn>
std::string encode(Fn fn, u_int size = 256) {
  std::vector<char> buf(size);
  XDR x;
  xdrmem_create(&x, buf.data(), size, XDR_ENCODE);
  if (!fn(&x)) return "FAIL";
  return toHex(reinterpret_cast<uint8_t*>(buf.data()), xdr_getpos(&x));
}

struct Decoder {
  std::vector<uint8_t> bytes;
  XDR x;
  explicit Decoder(const std::string& hex) : bytes(fromHex(hex)) {
    xdrmem_create(&x, reinterpret_cast<char*>(bytes.data()), static_cast<u_int>(bytes.size()),
                  XDR_DECODE);
  }
};

// Encodes value with fn to hex, then decodes hex back to value.
template <typename T>
void roundTrip(bool_t (*fn)(XDR*, T*), T value, const std::string& hex) {
  EXPECT_EQ(hex, encode([&](XDR* x) { return fn(x, &value); }));
  Decoder d(hex);
  T back{};
  ASSERT_TRUE(fn(&d.x, &back)) << hex;
  EXPECT_EQ(value, back) << hex;
  EXPECT_FALSE(fn(&d.x, &back)) << "read past the end";
}

TEST(Xdr, IntegersTravelAsBigEndianWordsAndKeepTheirSign) {
  roundTrip<int>(xdr_int, -2, "ff ff ff fe");
  roundTrip<u_int>(xdr_u_int, 0xffffffff, "ff ff ff ff");
  roundTrip<u_int>(xdr_u_int, 0x01020304, "01 02 03 04");
  roundTrip<short>(xdr_short, -32768, "ff ff 80 00");
  roundTrip<u_short>(xdr_u_short, 0xbeef, "00 00 be ef");
  roundTrip<char>(xdr_char, 'A', "00 00 00 41");
  roundTrip<long>(xdr_long, -5, "ff ff ff fb");
  roundTrip<int64_t>(xdr_hyper, 0x0102030405060708, "01 02 03 04 05 06 07 08");
  roundTrip<bool_t>(xdr_bool, 1, "00 00 00 01");
  bool_t b = 7;  // any true value travels as 1
  EXPECT_EQ("00 00 00 01", encode([&](XDR* x) { return xdr_bool(x, &b); }));
}

TEST(Xdr, StringsAndOpaqueArePaddedToFourBytes) {
  char* s = const_cast<char*>("abcde");
  char op[3] = {1, 2, 3};
  char* empty = const_cast<char*>("");
  EXPECT_EQ("00 00 00 05 61 62 63 64 65 00 00 00",
            encode([&](XDR* x) { return xdr_string(x, &s, 100); }));
  EXPECT_EQ("01 02 03 00", encode([&](XDR* x) { return xdr_opaque(x, op, 3); }));
  EXPECT_EQ("00 00 00 00", encode([&](XDR* x) { return xdr_wrapstring(x, &empty); }));
  // Too long for its bound, a null string, and a buffer too small all fail.
  EXPECT_EQ("FAIL", encode([&](XDR* x) { return xdr_string(x, &s, 4); }));
  char* null = nullptr;
  EXPECT_EQ("FAIL", encode([&](XDR* x) { return xdr_string(x, &null, 100); }));
  EXPECT_EQ("FAIL", encode([&](XDR* x) { return xdr_string(x, &s, 100); }, 11));
}

TEST(Xdr, DecodesStringsWithinTheirBoundsAndTheBuffer) {
  testing_support::LogCapture log;
  struct Case {
    const char* name;
    const char* hex;
    u_int maxsize;
    const char* decoded;  // null: refused
  } cases[] = {
      {"at the bound", "00 00 00 05 61 62 63 64 65 00 00 00", 5, "abcde"},
      {"empty", "00 00 00 00", 0, ""},
      {"longer than the bound", "00 00 00 05 61 62 63 64 65 00 00 00", 4, nullptr},
      {"bytes missing", "00 00 00 05 61 62 63", 100, nullptr},
      {"padding missing", "00 00 00 05 61 62 63 64 65", 100, nullptr},
      {"length word cut", "00 00 00", 100, nullptr},
      {"length that wraps", "ff ff ff ff 00", ~0u, nullptr},
      {"0x7ffffff + 1 bytes: allowed, but not there", "07 ff ff ff 00", ~0u, nullptr},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Decoder d(c.hex);
    char* s = nullptr;
    ASSERT_EQ(c.decoded != nullptr, xdr_string(&d.x, &s, c.maxsize));
    if (!c.decoded) free(s);
    if (!c.decoded) continue;
    EXPECT_STREQ(c.decoded, s);
    EXPECT_EQ(d.bytes.size(), xdr_getpos(&d.x));
    xdr_free(xdr_proc<xdr_wrapstring>, &s);
    EXPECT_EQ(nullptr, s);
  }
  // Only a length beyond the allocation limit is refused as unallocatable.
  EXPECT_FALSE(log.contains("cannot allocate 134217728 "));
  Decoder beyond("08 00 00 00 00");
  char* s = nullptr;
  EXPECT_FALSE(xdr_wrapstring(&beyond.x, &s));
  EXPECT_EQ(nullptr, s);
  EXPECT_TRUE(log.contains("cannot allocate 134217729 bytes"));
}

TEST(Xdr, VariableOpaqueRoundTripWithinItsBound) {
  char data[5] = {9, 8, 7, 6, 5};
  char* p = data;
  u_int n = 5;
  const std::string hex = "00 00 00 05 09 08 07 06 05 00 00 00";
  EXPECT_EQ(hex, encode([&](XDR* x) { return xdr_bytes(x, &p, &n, 10); }));
  for (u_int bound : {5u, 4u}) {
    Decoder d(hex);
    char* out = nullptr;
    u_int outLen = 0;
    EXPECT_EQ(bound == 5, xdr_bytes(&d.x, &out, &outLen, bound) != 0) << bound;
    EXPECT_EQ(bound == 5 ? std::string(data, 5) : "<null>",
              out ? std::string(out, outLen) : "<null>");
    free(out);
  }
}

TEST(Xdr, PositionCanBeMovedOnlyInsideTheBuffer) {
  char buf[8];
  XDR x;
  xdrmem_create(&x, buf, sizeof buf, XDR_ENCODE);
  EXPECT_TRUE(xdr_setpos(&x, 8));
  int i = 1;
  EXPECT_FALSE(xdr_int(&x, &i));
  EXPECT_FALSE(xdr_setpos(&x, 9));
  EXPECT_TRUE(xdr_setpos(&x, 4));
  EXPECT_TRUE(xdr_int(&x, &i));
  EXPECT_EQ(8u, xdr_getpos(&x));
}

}  // namespace
