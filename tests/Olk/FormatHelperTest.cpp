#include "Olk/FormatHelper.h"

#include <gtest/gtest.h>

#include <cmath>
#include <sstream>

namespace {

std::string si(double v, const char* unit = "B") {
  std::ostringstream os;
  Olk::formatValueSi(os, v, unit);
  return os.str();
}

TEST(FormatHelper, ValueSiScalesByThousands) {
  EXPECT_EQ(si(1234567), "1.235 MB");
  EXPECT_EQ(si(999.9), "999.9 B");
  EXPECT_EQ(si(1000), "1 kB");
  EXPECT_EQ(si(0), "0 B");
  EXPECT_EQ(si(2.5e12), "2.5 TB");
  EXPECT_EQ(si(-5000), "-5000 B");
  EXPECT_EQ(si(1e15), "1e+15 B");  // 1000 T and beyond: unscaled
  std::ostringstream os;
  Olk::formatValueSi(os, 5, nullptr);
  EXPECT_TRUE(os.fail());
}

TEST(FormatHelper, TimeIntervalFormsAndSign) {
  EXPECT_EQ(Olk::formatTimeInterval(3661), "01:01:01");
  EXPECT_EQ(Olk::formatTimeInterval(90061), "1d01h");
  EXPECT_EQ(Olk::formatTimeInterval(-59), "-00:00:59");
  EXPECT_EQ(Olk::formatTimeInterval(86400), "1d00h");
  EXPECT_EQ(Olk::formatTimeInterval(86399.9), "23:59:59");
  EXPECT_EQ(Olk::formatTimeInterval(Olk::U32{0}), "00:00:00");
  EXPECT_EQ(Olk::formatTimeInterval(Olk::U64{86400 * 400 + 7200}), "400d02h");
  EXPECT_EQ(Olk::formatTimeInterval(-90061L), "-1d01h");
}

TEST(FormatHelper, TimeStrepWrapsDaysAt256) {
  EXPECT_EQ(Olk::secondsToTimeStrep(0), "00:00:00");
  EXPECT_EQ(Olk::secondsToTimeStrep(3661), "01:01:01");
  EXPECT_EQ(Olk::secondsToTimeStrep(86400 + 3 * 3600), "1d03h");
  EXPECT_EQ(Olk::secondsToTimeStrep(86400u * 256), "00:00:00");
  EXPECT_EQ(Olk::secondsToTimeStrep(86400u * 256 + 5), "00:00:05");
  EXPECT_EQ(Olk::secondsToTimeStrep(86400u * 257), "1d00h");
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream is(text);
  for (std::string l; std::getline(is, l);) out.push_back(l);
  return out;
}

// The part of a dump line after the address.
std::string body(const std::string& line) { return line.substr(line.find(':') + 1); }

TEST(FormatHelper, HexdumpFullAndPartialLines) {
  unsigned char bytes[20];
  for (int i = 0; i < 20; ++i) bytes[i] = static_cast<unsigned char>('A' + i);
  bytes[1] = 0x07;  // not printable
  auto out = lines(Olk::hexdump(bytes, sizeof bytes, 0));
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].rfind("Dumping 20 bytes from ", 0), 0u);
  EXPECT_EQ(body(out[1]), " 41 07 43 44 45 46 47 48  49 4a 4b 4c 4d 4e 4f 50 |A CDEFGHIJKLMNOP|");
  // Four bytes, then padding up to the character column (with the mid blank).
  EXPECT_EQ(body(out[2]), " 51 52 53 54" + std::string(4 * 3 + 1 + 8 * 3, ' ') + " |QRST|");
  EXPECT_EQ(out[1].size(), out[2].size() + 12);
}

TEST(FormatHelper, HexdumpLimitIsAnnounced) {
  unsigned char bytes[40] = {};
  auto out = lines(Olk::hexdump(bytes, sizeof bytes, 16));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].rfind("Dumping 16 (limited from 40) bytes from ", 0), 0u);
  EXPECT_EQ(lines(Olk::hexdump(bytes, 8, 16)).size(), 2u);  // limit above length: no note
  EXPECT_EQ(lines(Olk::hexdump(bytes, 8, 16))[0].find("limited"), std::string::npos);
}

TEST(FormatHelper, DurationConversions) {
  EXPECT_EQ(Olk::duration2seconds(Olk::Duration::max()), INFINITY);
  EXPECT_DOUBLE_EQ(Olk::duration2seconds(Olk::Duration(1500000000)), 1.5);
  EXPECT_EQ(Olk::seconds2duration(INFINITY), Olk::Duration::max());
  EXPECT_EQ(Olk::seconds2duration(1.5), Olk::Duration(1500000000));
  EXPECT_EQ(Olk::seconds2duration(-0.25), Olk::Duration(-250000000));
  EXPECT_EQ(Olk::seconds2duration(1e300), Olk::Duration::max());
  EXPECT_EQ(Olk::seconds2timeStamp(INFINITY), Olk::TimeStamp::max());
  auto before = std::chrono::steady_clock::now();
  auto ts = Olk::seconds2timeStamp(static_cast<double>(::time(nullptr)) + 100);
  EXPECT_GT(ts, before + std::chrono::seconds(90));
  EXPECT_LT(ts, before + std::chrono::seconds(110));
}

}  // namespace
