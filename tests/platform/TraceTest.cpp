#include "platform/Trace.h"

#include <gtest/gtest.h>

#include "platform/Clock.h"
#include "platform/Exception.h"
#include "platform/Log.h"

namespace {

int formatted = 0;
int expensive() {
  ++formatted;
  return 42;
}

TEST(Trace, DisabledTraceFormatsNothing) {
  Zum::TraceHandle& h = Zum::traceHandle("TraceTestQuiet");
  Zum::traceLevelIs("TraceTestQuiet", 3);
  std::vector<Zum::TraceRecord> seen;
  auto old = Zum::traceSinkIs([&](const Zum::TraceRecord& r) { seen.push_back(r); });
  formatted = 0;
  ZUM_TRACE(h, 4) << "value " << expensive();
  EXPECT_EQ(formatted, 0);
  ZUM_TRACE(h, 3) << "value " << expensive();
  EXPECT_EQ(formatted, 1);
  Zum::traceSinkIs(std::move(old));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].text, "value 42");
  EXPECT_EQ(seen[0].level, 3);
  EXPECT_STREQ(seen[0].function, "TestBody");
  EXPECT_NE(Zum::traceLineText(seen[0]).find("TraceTestQuiet/3 TestBody: value 42"), std::string::npos);
}

TEST(Trace, ConfigSyntaxSetsHandlesAndWildcard) {
  Zum::traceConfigIs("TraceTestA/8,TraceTestB/*");
  EXPECT_EQ(Zum::traceHandle("TraceTestA").level(), 8);
  EXPECT_EQ(Zum::traceHandle("TraceTestB").level(), 9);
  Zum::traceConfigIs("*/2");
  EXPECT_EQ(Zum::traceHandle("TraceTestA").level(), 2);
  EXPECT_EQ(Zum::traceHandle("TraceTestLater").level(), 2);  // future handles too
  Zum::traceLevelIs("*", Zum::traceOff);
  EXPECT_FALSE(Zum::traceHandle("TraceTestA").on(0));
}

TEST(Trace, MalformedConfigThrowsAndChangesNothing) {
  Zum::traceLevelIs("TraceTestC", 1);
  EXPECT_THROW(Zum::traceConfigIs("TraceTestC/5,broken"), Zum::RangeException);
  EXPECT_THROW(Zum::traceConfigIs("TraceTestC/x"), Zum::RangeException);
  EXPECT_EQ(Zum::traceHandle("TraceTestC").level(), 1);
}

TEST(Trace, CaptureCollectsAndRestores) {
  Zum::TraceHandle& h = Zum::traceHandle("TraceTestD");
  Zum::traceLevelIs("TraceTestD", Zum::traceOff);
  {
    Zum::TraceCapture capture;
    ZUM_TRACE(h, 9) << "first";
    ZUM_TRACE(h, 0) << "second";
    EXPECT_EQ(capture.texts(), (std::vector<std::string>{"first", "second"}));
    EXPECT_TRUE(capture.contains("sec"));
    EXPECT_FALSE(capture.contains("third"));
  }
  EXPECT_FALSE(h.on(0));
}

TEST(Log, RepeatsWithinIntervalAreSuppressedAndCountedOnTheNextLine) {
  static Zum::LogMessage msg("TEST_LOG_KEY", Zum::LogSeverity::warning, "value %d is %s",
                             "A test event.", "None.", 3600.0);
  auto clock = Zum::manualClockFactory(100.0);
  auto oldClock = Zum::logClockIs(clock);
  std::vector<Zum::LogRecord> seen;
  auto old = Zum::logSinkIs([&](const Zum::LogRecord& r) { seen.push_back(r); });
  EXPECT_TRUE(msg.log(1, "one"));
  EXPECT_FALSE(msg.log(2, "two"));
  clock->advance(3599.5);
  EXPECT_FALSE(msg.log(3, "three"));
  clock->advance(0.5);  // exactly one interval after the last line written
  EXPECT_TRUE(msg.log(4, "four"));
  clock->advance(3600.0);
  EXPECT_TRUE(msg.log(5, "five"));
  Zum::logSinkIs(std::move(old));
  Zum::logClockIs(std::move(oldClock));
  ASSERT_EQ(seen.size(), 3u);
  EXPECT_EQ(seen[0].text, "value 1 is one");
  EXPECT_STREQ(seen[0].key, "TEST_LOG_KEY");
  EXPECT_EQ(seen[1].text, "value 4 is four (2 similar messages suppressed)");
  EXPECT_EQ(seen[2].text, "value 5 is five");
  EXPECT_EQ(msg.written(), 3u);
  EXPECT_EQ(msg.suppressed(), 2u);
}

TEST(Log, ZeroIntervalSuppressesNothing) {
  static Zum::LogMessage msg("TEST_LOG_NOLIMIT", Zum::LogSeverity::info, "plain", "", "", 0.0);
  std::vector<Zum::LogRecord> seen;
  auto old = Zum::logSinkIs([&](const Zum::LogRecord& r) { seen.push_back(r); });
  EXPECT_TRUE(msg.log());
  EXPECT_TRUE(msg.log());
  Zum::logSinkIs(std::move(old));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].text, "plain");
}

TEST(Exception, NullParameterTextKeepsTrailingQuote) {
  EXPECT_EQ(Zum::nullParameterText("Olk::Xact", "blockingXact"),
            "null _blockingXact parameter to mutator for Olk::Xact::blockingXact not allowed\"");
  int* none = nullptr;
  EXPECT_THROW(Zum::requireNonNull(none, "C", "a"), Zum::RangeException);
}

TEST(ExceptionDeathTest, AssertionPrintsExpressionText) {
  int bucketIndex = 3, count = 2;
  EXPECT_DEATH(ZUM_ASSERT(bucketIndex < count), "Assertion failed: bucketIndex < count");
  EXPECT_DEATH(ZUM_ASSERT_TEXT(false, "ret != 0"), "Assertion failed: ret != 0");
}

}  // namespace
