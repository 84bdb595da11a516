#include "kvrpc/KVprot.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/Hex.h"
#include "testing/LogCapture.h"

using namespace testing_support;

namespace {

// Encodes a record with our routine; "FAIL" when it fails.
template <typename T>
std::string encode(bool_t (*fn)(XDR*, T*), T* rec) {
  std::vector<char> buf(4096);
  XDR x;
  xdrmem_create(&x, buf.data(), static_cast<u_int>(buf.size()), XDR_ENCODE);
  if (!fn(&x, rec)) return "FAIL";
  return toHex(reinterpret_cast<uint8_t*>(buf.data()), xdr_getpos(&x));
}

// Decodes hex with our routine into *rec; false when it fails (the record
// is freed either way by the caller with xdr_free).
template <typename T>
bool decode(bool_t (*fn)(XDR*, T*), const std::string& hex, T* rec) {
  std::vector<uint8_t> b = fromHex(hex);
  XDR x;
  xdrmem_create(&x, reinterpret_cast<char*>(b.data()), static_cast<u_int>(b.size()), XDR_DECODE);
  memset(rec, 0, sizeof *rec);
  return fn(&x, rec) && xdr_getpos(&x) == b.size();
}

// Whether our routine decodes hex to a whole record (freed again).
template <auto F>
bool decodes(const std::string& hex) {
  typename XdrRoutineArg<decltype(F)>::type rec;
  const bool ok = decode(F, hex, &rec);
  xdr_free(xdr_proc<F>, &rec);
  return ok;
}

sockaddr_kl address(u_short family, u_short port, const std::string& hex) {
  sockaddr_kl a{};
  a.family = family;
  a.port = port;
  std::vector<uint8_t> b = fromHex(hex);
  memcpy(a.address, b.data(), b.size());
  return a;
}

const sockaddr_kl kV4 = address(2, 0x1234, "7f 00 00 01");
const sockaddr_kl kV6 = address(23, 4032, "20 01 0d b8 00 00 00 00 00 00 00 00 00 00 00 01");

const std::string kV4Wire = "0000000200001234" + std::string("7f000001") + std::string(64, '0');

// Runs the peer; returns its standard output (without the last newline).
std::string peer(std::vector<std::string> args) {
  args.insert(args.begin(), std::string(CLOCKETTE_BINARY_DIR) + "/testing/kvprot_peer");
  std::string out = runChild(args).out;
  return out.substr(0, out.find('\n'));
}

using Args = std::vector<std::string>;
Args operator+(Args a, const Args& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}
// An address as the peer takes it: family, port and its 16 bytes in hex.
Args addressArgs(const sockaddr_kl& a) {
  return {std::to_string(a.family), std::to_string(a.port),
          toHex(reinterpret_cast<const uint8_t*>(a.address), 16)};
}

TEST(KVprot, DecodedRecordsOwnFreshStrings) {
  op_kl in{kV4, const_cast<char*>("/d"), const_cast<char*>("ok"), const_cast<char*>("fine")};
  const std::string wire = encode(xdr_op_kl, &in);
  op_kl out;
  ASSERT_TRUE(decode(xdr_op_kl, wire, &out));
  EXPECT_STREQ("/d", out.document);
  EXPECT_STREQ("ok", out.status);
  EXPECT_STREQ("fine", out.comment);
  xdr_free(xdr_proc<xdr_op_kl>, &out);
  EXPECT_EQ(nullptr, out.document);
  EXPECT_EQ(nullptr, out.comment);
  // Every cut-short prefix fails, and what was decoded so far can be freed.
  // Cut at word boundaries: each word is 12 characters of "xx ".
  for (size_t n = 0; n < wire.size(); n += 12) ASSERT_FALSE(decodes<xdr_op_kl>(wire.substr(0, n)));
}

// Wire bytes of a string of n 'x' (no bound applied).
std::string stringWire(size_t n) {
  char len[16];
  snprintf(len, sizeof len, "%08zx", n);
  std::string s = len;
  for (size_t i = 0; i < n; ++i) s += "78";
  while ((s.size() / 2) % 4) s += "00";
  return s;
}

TEST(KVprot, BoundedStringsAreRefusedBeyondTheirBoundByBothImplementations) {
  const std::string addr = kV4Wire, s1 = stringWire(1);
  struct Case {
    const char* record;
    bool (*ours)(const std::string&);
    std::string wire;
    bool ok;
  } cases[] = {
      {"op_kl", decodes<xdr_op_kl>, addr + stringWire(128) + stringWire(60) + stringWire(128), 1},
      {"op_kl", decodes<xdr_op_kl>, addr + s1 + stringWire(61) + s1, 0},
      {"op_kl", decodes<xdr_op_kl>, addr + stringWire(129) + s1 + s1, 0},
      {"op_kl", decodes<xdr_op_kl>, addr + s1 + s1 + stringWire(129), 0},
      {"crt_kl", decodes<xdr_crt_kl>, stringWire(25) + addr + s1 + s1 + s1, 1},
      {"crt_kl", decodes<xdr_crt_kl>, stringWire(26) + addr + s1 + s1 + s1, 0},
      {"hello_kl", decodes<xdr_hello_kl>, addr + stringWire(5000), 1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(std::string(c.record) + " of " + std::to_string(c.wire.size() / 2) + " bytes");
    EXPECT_EQ(c.ok, c.ours(c.wire));
    EXPECT_EQ(c.ok, peer({"decode", c.record, c.wire}) != "FAILED") << "libtirpc";
  }
  // Neither side sends an over-long text either.
  op_kl tooLong{kV4, const_cast<char*>("/d"), nullptr, const_cast<char*>("c")};
  std::string status(61, 's');
  tooLong.status = status.data();
  EXPECT_EQ("FAIL", encode(xdr_op_kl, &tooLong));
  EXPECT_EQ("FAILED", peer({"encode", "op_kl", "2", "4660", "7f000001", "/d", status, "c"}));
}

// The same record through both implementations: identical bytes, and each
// decodes what the other encoded. Foreign IPv6 families go out as they are
// and become 23 in the record.
TEST(KVprot, WireMatchesTheSystemLibrary) {
  LogCapture log(LogCapture::kAllLevels);
  struct AddrCase {
    sockaddr_kl a;
    size_t bytes;
    const char* logged;
  } addrs[] = {
      {kV4, 44, nullptr},
      {kV6, 24, nullptr},
      {address(10, 5000, "fe800000000000000000000000000001"), 24, "10 (IPv6 Linux client)"},
      {address(22, 1, "20010db8000000000000000000000002"), 24, "22 (IPv6 HP-UX client)"},
      {address(24, 65535, "20010db8000000000000000000000003"), 24, "24 (IPv6 AIX client)"},
      {address(26, 4032, "20010db8000000000000000000000004"), 24, "26 (IPv6 Solaris client)"},
      {address(5, 77, "0a000001"), 44, "5 (unknown client)"},
  };
  for (const AddrCase& c : addrs) {
    SCOPED_TRACE(c.a.family);
    sockaddr_kl sent = c.a;
    const std::string ours = encode(xdr_sockaddr_kl, &sent);
    const bool v6 = c.bytes == 24;
    EXPECT_EQ(v6 ? 23 : c.a.family, sent.family);
    if (c.logged) {
      EXPECT_TRUE(log.contains(std::string("us_family=") + c.logged));
    }
    EXPECT_EQ(c.bytes, fromHex(ours).size());
    EXPECT_EQ(ours, peer(Args{"encode", "sockaddr_kl"} + addressArgs(c.a)));
    // The system library reads family and port as sent: it writes the same bytes back.
    EXPECT_EQ(ours, peer({"decode", "sockaddr_kl", ours}));
    sockaddr_kl back;
    ASSERT_TRUE(decode(xdr_sockaddr_kl, ours, &back));
    EXPECT_EQ(v6 ? 23 : c.a.family, back.family);
    EXPECT_EQ(static_cast<u_short>((c.a.port >> 8) | (c.a.port << 8)), back.port);  // byte-swapped
    EXPECT_EQ(0, memcmp(c.a.address, back.address, v6 ? 16 : 4));
  }
  EXPECT_TRUE(log.contains("us_family changed to 23 (AF_INET6)"));
  // Filler bytes carry no meaning.
  std::string dirty = kV4Wire;
  dirty.replace(dirty.size() - 8, 8, "000000ff");
  EXPECT_TRUE(decodes<xdr_sockaddr_kl>(dirty));

  hello_kl h{const_cast<char*>("clockette"), kV6};
  const std::string hWire = encode(xdr_hello_kl, &h);
  EXPECT_EQ(hWire, peer(Args{"encode", "hello_kl"} + addressArgs(kV6) + Args{"clockette"}));
  EXPECT_EQ(hWire, peer({"decode", "hello_kl", hWire}));

  Args opText = {"/queue/doc 1", "ok", "document has been processed"};
  op_kl op{kV4, opText[0].data(), opText[1].data(), opText[2].data()};
  EXPECT_EQ(encode(xdr_op_kl, &op), peer(Args{"encode", "op_kl"} + addressArgs(kV4) + opText));

  Args crtText = {std::string(200, 't'), "stamp", ""};
  const std::string crtWire =
      peer(Args{"encode", "crt_kl", "clockette"} + addressArgs(kV4) + crtText);
  crt_kl crt{const_cast<char*>("clockette"), kV4, crtText[0].data(), crtText[1].data(),
             crtText[2].data()};
  EXPECT_EQ(encode(xdr_crt_kl, &crt), crtWire);

  order_kl order;
  ASSERT_TRUE(decode(xdr_order_kl, peer({"encode", "order_kl", "-3", "/docs/a"}), &order));
  EXPECT_EQ(-3, order.number);
  EXPECT_STREQ("/docs/a", order.text);
  xdr_free(xdr_proc<xdr_order_kl>, &order);
}

}  // namespace
