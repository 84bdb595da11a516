#include "kvrpc/KVprot.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "testing/ChildProcess.h"
#include "testing/Hex.h"
#include "testing/LogCapture.h"

using testing_support::fromHex;
using testing_support::toHex;

namespace {

const std::string kPeer = std::string(CLOCKETTE_BINARY_DIR) + "/testing/kvprot_peer";

std::string compact(std::string hex) {
  std::string out;
  for (char c : hex)
    if (c != ' ' && c != '\n') out += c;
  return out;
}

// Encodes a record with our routine; "FAIL" when it fails.
template <typename T>
std::string encode(bool_t (*fn)(XDR*, T*), T rec) {
  std::vector<char> buf(4096);
  XDR x;
  xdrmem_create(&x, buf.data(), static_cast<u_int>(buf.size()), XDR_ENCODE);
  if (!fn(&x, &rec)) return "FAIL";
  return compact(toHex(reinterpret_cast<uint8_t*>(buf.data()), xdr_getpos(&x)));
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

std::string v4Wire(int port) {
  char p[16];
  snprintf(p, sizeof p, "%08x", port);
  return std::string("00000002") + p + "7f000001" + std::string(64, '0');
}

// Runs the peer; returns its standard output (without the last newline).
std::string peer(std::vector<std::string> args) {
  args.insert(args.begin(), kPeer);
  testing_support::ChildResult r = testing_support::runChild(args);
  std::string out = r.out;
  while (!out.empty() && out.back() == '\n') out.pop_back();
  return out;
}

std::vector<std::string> addressArgs(const sockaddr_kl& a) {
  return {std::to_string(a.family), std::to_string(a.port),
          compact(toHex(reinterpret_cast<const uint8_t*>(a.address), 16))};
}

u_short swapped(u_short p) { return static_cast<u_short>((p >> 8) | (p << 8)); }

// The bytes of every family are compared in WireMatchesTheSystemLibrary.
TEST(KVprot, ForeignIPv6FamiliesAreLoggedAndBecome23InTheRecord) {
  testing_support::LogCapture log;
  Log::setLevel(9, 1);
  const struct {
    u_short family, after;
    const char* logged;
  } cases[] = {
      {10, 23, "us_family=10 (IPv6 Linux client)"}, {22, 23, "us_family=22 (IPv6 HP-UX client)"},
      {24, 23, "us_family=24 (IPv6 AIX client)"},   {26, 23, "us_family=26 (IPv6 Solaris client)"},
      {5, 5, "us_family=5 (unknown client)"},
  };
  for (const auto& c : cases) {
    sockaddr_kl a = kV6;
    a.family = c.family;
    std::vector<char> buf(64);
    XDR x;
    xdrmem_create(&x, buf.data(), 64, XDR_ENCODE);
    ASSERT_TRUE(xdr_sockaddr_kl(&x, &a));
    EXPECT_EQ(c.after, a.family);
    EXPECT_TRUE(log.contains(c.logged)) << c.family;
  }
  EXPECT_TRUE(log.contains("us_family changed to 23 (AF_INET6)"));
  Log::setLevel(9, 0);
}

TEST(KVprot, DecodedRecordsOwnFreshStrings) {
  op_kl in{kV4, const_cast<char*>("/d"), const_cast<char*>("ok"), const_cast<char*>("fine")};
  const std::string wire = encode(xdr_op_kl, in);
  op_kl out;
  ASSERT_TRUE(decode(xdr_op_kl, wire, &out));
  EXPECT_STREQ("/d", out.document);
  EXPECT_STREQ("ok", out.status);
  EXPECT_STREQ("fine", out.comment);
  EXPECT_EQ(swapped(kV4.port), out.address.port);
  xdr_free(xdr_proc<xdr_op_kl>, &out);
  EXPECT_EQ(nullptr, out.document);
  EXPECT_EQ(nullptr, out.comment);
  // Every cut-short prefix fails, and what was decoded so far can be freed.
  for (size_t n = 0; n < wire.size(); n += 8) {
    ASSERT_FALSE(decode(xdr_op_kl, wire.substr(0, n), &out)) << n;
    xdr_free(xdr_proc<xdr_op_kl>, &out);
  }
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
  const std::string addr = v4Wire(0x1234);
  struct Case {
    const char* record;
    std::string wire;
    bool ok;
  } cases[] = {
      {"op_kl", addr + stringWire(128) + stringWire(60) + stringWire(128), true},
      {"op_kl", addr + stringWire(1) + stringWire(61) + stringWire(1), false},
      {"op_kl", addr + stringWire(129) + stringWire(1) + stringWire(1), false},
      {"op_kl", addr + stringWire(1) + stringWire(1) + stringWire(129), false},
      {"crt_kl", stringWire(25) + addr + stringWire(1) + stringWire(1) + stringWire(1), true},
      {"crt_kl", stringWire(26) + addr + stringWire(1) + stringWire(1) + stringWire(1), false},
      {"hello_kl", addr + stringWire(5000), true},
  };
  for (const Case& c : cases) {
    const std::string rec = c.record;
    bool ours = false;
    if (rec == "op_kl") {
      op_kl r;
      ours = decode(xdr_op_kl, c.wire, &r);
      xdr_free(xdr_proc<xdr_op_kl>, &r);
    } else if (rec == "crt_kl") {
      crt_kl r;
      ours = decode(xdr_crt_kl, c.wire, &r);
      xdr_free(xdr_proc<xdr_crt_kl>, &r);
    } else {
      hello_kl r;
      ours = decode(xdr_hello_kl, c.wire, &r);
      xdr_free(xdr_proc<xdr_hello_kl>, &r);
    }
    EXPECT_EQ(c.ok, ours) << rec << " " << c.wire.size();
    EXPECT_EQ(c.ok, peer({"decode", rec, c.wire}) != "FAILED") << rec << " (libtirpc)";
  }
  // Neither side sends an over-long text either.
  op_kl tooLong{kV4, const_cast<char*>("/d"), nullptr, const_cast<char*>("c")};
  std::string status(61, 's');
  tooLong.status = status.data();
  EXPECT_EQ("FAIL", encode(xdr_op_kl, tooLong));
  EXPECT_EQ("FAILED", peer({"encode", "op_kl", "2", "4660", "7f000001", "/d", status, "c"}));
  // Nor a null one.
  order_kl nullText{1, nullptr};
  EXPECT_EQ("FAIL", encode(xdr_order_kl, nullText));
}

// The same record through both implementations: identical bytes, and each
// decodes what the other encoded.
TEST(KVprot, WireMatchesTheSystemLibrary) {
  struct AddrCase {
    sockaddr_kl a;
    size_t bytes;
  } addrs[] = {
      {kV4, 44},
      {kV6, 24},
      {address(10, 5000, "fe800000000000000000000000000001"), 24},
      {address(22, 1, "20010db8000000000000000000000002"), 24},
      {address(24, 65535, "20010db8000000000000000000000003"), 24},
      {address(26, 4032, "20010db8000000000000000000000004"), 24},
      {address(5, 77, "0a000001"), 44},
  };
  for (const AddrCase& c : addrs) {
    const std::string ours = encode(xdr_sockaddr_kl, c.a);
    EXPECT_EQ(c.bytes * 2, ours.size());
    std::vector<std::string> args = {"encode", "sockaddr_kl"};
    for (auto& s : addressArgs(c.a)) args.push_back(s);
    EXPECT_EQ(ours, peer(args)) << "family " << c.a.family;
    // The system library reads family and port as sent: it writes the same bytes back.
    EXPECT_EQ(ours, peer({"decode", "sockaddr_kl", ours}));
    sockaddr_kl back;
    ASSERT_TRUE(decode(xdr_sockaddr_kl, ours, &back));
    const bool v6 = c.bytes == 24;
    EXPECT_EQ(v6 ? 23 : c.a.family, back.family);
    EXPECT_EQ(swapped(c.a.port), back.port);
    EXPECT_EQ(0, memcmp(c.a.address, back.address, v6 ? 16 : 4));
  }
  // Filler bytes carry no meaning.
  std::string dirty = v4Wire(0x1234);
  dirty.replace(dirty.size() - 8, 8, "000000ff");
  sockaddr_kl back;
  EXPECT_TRUE(decode(xdr_sockaddr_kl, dirty, &back));

  const std::string text200(200, 't');
  hello_kl h{const_cast<char*>("clockette"), kV6};
  std::vector<std::string> hArgs = {"encode", "hello_kl"};
  for (auto& s : addressArgs(kV6)) hArgs.push_back(s);
  hArgs.push_back("clockette");
  const std::string hWire = encode(xdr_hello_kl, h);
  EXPECT_EQ(hWire, peer(hArgs));
  EXPECT_EQ(hWire, peer({"decode", "hello_kl", hWire}));

  op_kl op{kV4, const_cast<char*>("/queue/doc 1"), const_cast<char*>("ok"),
           const_cast<char*>("document has been processed")};
  std::vector<std::string> opArgs = {"encode", "op_kl"};
  for (auto& s : addressArgs(kV4)) opArgs.push_back(s);
  for (const char* s : {"/queue/doc 1", "ok", "document has been processed"}) opArgs.push_back(s);
  const std::string opWire = encode(xdr_op_kl, op);
  EXPECT_EQ(opWire, peer(opArgs));

  crt_kl crt{const_cast<char*>("clockette"), kV4, const_cast<char*>(text200.c_str()),
             const_cast<char*>("stamp"), const_cast<char*>("")};
  std::vector<std::string> crtArgs = {"encode", "crt_kl", "clockette"};
  for (auto& s : addressArgs(kV4)) crtArgs.push_back(s);
  for (const std::string& s : {text200, std::string("stamp"), std::string()}) crtArgs.push_back(s);
  const std::string crtWire = peer(crtArgs);
  EXPECT_EQ(encode(xdr_crt_kl, crt), crtWire);
  crt_kl crtBack;
  ASSERT_TRUE(decode(xdr_crt_kl, crtWire, &crtBack));
  EXPECT_STREQ("clockette", crtBack.type);
  EXPECT_EQ(text200, crtBack.path);
  EXPECT_STREQ("stamp", crtBack.operation);
  EXPECT_STREQ("", crtBack.comment);
  xdr_free(xdr_proc<xdr_crt_kl>, &crtBack);

  const std::string orderWire = peer({"encode", "order_kl", "-3", "/docs/a"});
  order_kl order;
  ASSERT_TRUE(decode(xdr_order_kl, orderWire, &order));
  EXPECT_EQ(-3, order.number);
  EXPECT_STREQ("/docs/a", order.text);
  xdr_free(xdr_proc<xdr_order_kl>, &order);
}

}  // namespace
