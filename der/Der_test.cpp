// The DER reader and every type of the object model on the same terms: valid
// encodings read to their end and write back byte for byte, any cut or
// foreign encoding is refused.
#include "der/Der.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "der/CAsn1algorithmIdentifier.h"
#include "der/CAsn1bitString.h"
#include "der/CAsn1boolean.h"
#include "der/CAsn1integer.h"
#include "der/CAsn1issuerSerial.h"
#include "der/CAsn1messageImprint.h"
#include "der/CAsn1name.h"
#include "der/CAsn1nameAttribute.h"
#include "der/CAsn1oid.h"
#include "der/CAsn1size.h"
#include "der/CAsn1string.h"
#include "der/CAsn1time.h"
#include "der/asn1request.h"
#include "testing/DerTest.h"
#include "testing/LogCapture.h"

using namespace testing_support;

namespace {

using Maker = std::unique_ptr<CAsn1object> (*)();
template <class T>
std::unique_ptr<CAsn1object> make() {
  return std::make_unique<T>();
}

std::string repeat(const std::string& hex, int n) {
  std::string out;
  while (n-- > 0) out += hex;
  return out;
}

}  // namespace

TEST(CAsn1size, EncodesShortAndLongForms) {
  const struct {
    int value;
    const char* hex;
    const char* written = nullptr;  // nullptr: the same bytes
  } cases[] = {{0, "00"},
               {127, "7f"},
               {128, "81 80"},
               {255, "81 ff"},
               {256, "82 01 00"},
               {65535, "82 ff ff"},
               {65536, "83 01 00 00"},
               {0xFFFFFF, "83 ff ff ff"},
               {0x1000000, "84 01 00 00 00"},
               {0, "80", "00"}};  // the indefinite form reads as zero
  for (const auto& c : cases) {
    CAsn1size size(c.value);
    EXPECT_EQ(derHex(size), c.written != nullptr ? c.written : c.hex) << c.value;
    CAsn1size back(7);
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(back, c.hex, &pos), 0) << c.hex;
    EXPECT_EQ(back.value, c.value);
    EXPECT_EQ(pos, fromHex(c.hex).size());
  }
}

// An element's length is filled in when it is closed: the field widens as
// the contents grow, and the outer element counts the inner one's wider field.
TEST(DerWriter, ClosedElementsCarryTheLengthOfTheirContents) {
  const struct {
    unsigned int contents;
    const char* outerHead;
    const char* innerHead;
  } cases[] = {{0, "30 02", "04 00"},
               {125, "30 7f", "04 7d"},
               {126, "30 81 80", "04 7e"},
               {128, "30 81 83", "04 81 80"},
               {256, "30 82 01 04", "04 82 01 00"},
               {65536, "30 83 01 00 05", "04 83 01 00 00"}};
  for (const auto& c : cases) {
    DerWriter out;
    const size_t outer = out.open(kTagSequence);
    const size_t inner = out.open(kTagOctetString);
    memset(out.zeros(c.contents), 0xAB, c.contents);
    out.close(inner);
    out.close(outer);
    const std::string head = std::string(c.outerHead) + " " + c.innerHead;
    const size_t headSize = fromHex(head).size();
    ASSERT_EQ(out.size(), headSize + c.contents) << c.contents;
    EXPECT_EQ(toHex(out.data().data(), static_cast<unsigned int>(headSize)), head);
    EXPECT_EQ(std::count(out.data().begin() + headSize, out.data().end(), 0xAB), c.contents);
  }
}

// A length running past the end fails; 84 FF FF FF FF (-1 as a signed
// length) must not pass as a short one.
TEST(DerReader, LengthsPastTheEndFail) {
  LogCapture log;
  for (const char* hex : {"04 82 01 00 aa", "84 ff ff ff ff 00"}) {
    std::vector<uint8_t> bytes = fromHex(hex);
    unsigned int pos = bytes[0] == 0x04 ? 1 : 0;
    DerReader in(bytes.data(), &pos, static_cast<unsigned int>(bytes.size()));
    unsigned int length = 0;
    EXPECT_FALSE(in.readLength(&length)) << hex;
  }
  EXPECT_TRUE(log.contains("DER decoding-error at pos 4. Needed 256 bytes, only 1 left"));
}

// Every decoder reads a valid encoding to its end and writes back the same
// bytes; given any proper prefix it fails with -1 and stays inside the
// bytes it was given.
TEST(DerReader, EveryTypeRoundTripsAndRefusesEveryTruncation) {
  const struct {
    Maker make;
    const char* hex;
    const char* written = nullptr;  // nullptr: the same bytes
  } cases[] = {
      {make<CAsn1size>, "84 01 00 00 00"},
      {make<CAsn1integer>, "02 03 00 80 00"},
      {make<CAsn1boolean>, "01 01 ff"},
      {make<CAsn1oid>, "06 09 60 86 48 01 65 03 04 02 01"},
      {make<CAsn1string>, "13 03 61 62 63"},
      {make<CAsn1time>, "17 0d 39 39 31 32 33 31 32 33 35 39 35 39 5a"},
      {make<CAsn1bitString>, "03 02 05 20"},
      {make<CAsn1algorithmIdentifier>, "30 0d 06 09 60 86 48 01 65 03 04 02 01 05 00"},
      {make<CAsn1algorithmIdentifier>, "30 0b 06 09 60 86 48 01 65 03 04 02 01"},
      {make<CAsn1messageImprint>, "30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab"},
      {make<CAsn1nameAttribute>, "31 0a 30 08 06 03 55 04 03 13 01 41"},
      {make<CAsn1name>, "30 0c 31 0a 30 08 06 03 55 04 03 13 01 41"},
      {make<CAsn1issuerSerial>, "30 13 30 0c 31 0a 30 08 06 03 55 04 03 13 01 41 02 03 01 00 01"},
      // Optionals are read but written only when flagged: version and imprint.
      {make<CAsn1IETFrequest>,
       "30 1c 02 01 01 30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab 06 03 2a 03 04 02 01 07 01 01 ff",
       "30 11 02 01 01 30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.hex);
    std::vector<uint8_t> whole = fromHex(c.hex);
    std::unique_ptr<CAsn1object> object = c.make();
    unsigned int pos = 0;
    ASSERT_EQ(setDerHex(*object, c.hex, &pos), 0);
    EXPECT_EQ(pos, whole.size());
    EXPECT_EQ(derHex(*object), c.written != nullptr ? c.written : c.hex);
    for (size_t cut = 0; cut < whole.size(); ++cut) {
      std::unique_ptr<CAsn1object> part = c.make();
      EXPECT_EQ(setDerHex(*part, testing_support::toHex(whole.data(), cut), &pos), -1) << cut;
      EXPECT_LE(pos, cut);
    }
  }
}

// What is not of the type, or breaks its limits, is refused with the
// message given.
TEST(DerReader, EveryTypeRefusesForeignEncodings) {
  const char* seq = "30 08 06 03 55 04 03 13 01 41 ";
  const struct {
    Maker make;
    std::string hex;
    const char* message = "";
  } cases[] = {
      {make<CAsn1size>, "85 01 00 00 00 00", "Size of size value > 4 bytes"},
      {make<CAsn1integer>, "04 01 05", "DER decoding-error at pos 0. Expected 0x02, got 0x04"},
      {make<CAsn1integer>, "02 05 01 02 03 04 05", "Size of integer value > 4 bytes"},
      {make<CAsn1boolean>, "01 02 ff ff", "DER decoding-error at pos 1. Expected 0x01, got 0x02"},
      {make<CAsn1boolean>, "02 01 ff"},
      {make<CAsn1bitString>, "04 02 05 20"},
      {make<CAsn1bitString>, "03 03 05 20"},
      {make<CAsn1bitString>, "03 02 09 00"},
      {make<CAsn1bitString>, "03 01 01"},
      {make<CAsn1time>, "04 0d 39 39 31 32 33 31 32 33 35 39 35 39 5a",
       "Got time type 0x04, expected 0x17 or 0x18"},
      {make<CAsn1time>, "17 50"},
      {make<CAsn1time>, "18 50" + repeat(" 31", 80), "Size 80 exeeds 79"},
      {make<CAsn1algorithmIdentifier>, "30 05 06 09 60 86 48 01 65 03 04 02 01"},  // OID too long
      {make<CAsn1algorithmIdentifier>, "30 02 04 00"},                             // no OID
      {make<CAsn1messageImprint>, "31 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab"},
      {make<CAsn1nameAttribute>, "31 28 " + repeat(seq, 4)},  // four elements
      {make<CAsn1name>, "31 00"},
      {make<CAsn1name>, "30 0c 31 0a 31 08 06 03 55 04 03 13 01 41"},  // element no SEQUENCE
      {make<CAsn1name>, "30 0c 31 0a 30 08 04 03 55 04 03 13 01 41"},  // type no OID
      {make<CAsn1name>, "30 0c 31 0a 30 08 06 03 55 04 03 13 05 41"},  // value past the end
      // An RDN length in long form one octet short: the name reads on into the INTEGER.
      {make<CAsn1name>, "30 0d 31 81 0a 30 08 06 03 55 04 03 13 01 41 02 01 05"},
      {make<CAsn1name>, "30 81"},
      {make<CAsn1issuerSerial>, "31 13 30 0c 31 0a 30 08 06 03 55 04 03 13 01 41 02 03 01 00 01"},
      {make<CAsn1IETFrequest>, "31 11 02 01 01 30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab"},
      {make<CAsn1IETFrequest>, "02 11 02 01 01 30 0c 30 07 06 05 2b 0e 03 02 1a 04 01 ab"},
  };
  for (const auto& c : cases) {
    LogCapture log;
    std::unique_ptr<CAsn1object> object = c.make();
    EXPECT_EQ(setDerHex(*object, c.hex), -1) << c.hex;
    EXPECT_TRUE(log.contains(c.message)) << c.hex << ": " << log.text();
  }
}
