#include "platform/Rivlog.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

namespace {

class CollectingSink : public Rivlog::DumpSink {
 public:
  explicit CollectingSink(std::size_t maxEntries) : maxEntries_(maxEntries) {}
  void line(const std::string& t) override { text += t; }
  std::size_t maxEntries() const override { return maxEntries_; }
  void truncated() override { ++truncatedCalls; }
  std::string text;
  int truncatedCalls = 0;

 private:
  std::size_t maxEntries_;
};

// The process's ring, emptied and sized for the test, restored afterwards.
class RivlogTest : public testing::Test {
 protected:
  RivlogTest() { Rivlog::ring().capacityIs(4); }
  ~RivlogTest() override { Rivlog::ring().capacityIs(Rivlog::Ring::defaultCapacity); }

  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const Rivlog::Record& r : Rivlog::ring().records()) out.push_back(r.text);
    return out;
  }
  std::string dumpText(std::size_t maxEntries = 20000) {
    CollectingSink sink(maxEntries);
    Rivlog::dump(sink);
    truncatedCalls_ = sink.truncatedCalls;
    return sink.text;
  }

  Rivlog::Handle& h = Rivlog::handle("RivlogTest");
  int truncatedCalls_ = 0;
};

}  // namespace

TEST_F(RivlogTest, KeepsNewestRecordsInOrderWhenFull) {
  Zum::U64 first = Rivlog::ring().written();
  for (int i = 0; i < 6; ++i) RIVLOG(h, 1, "event %d", i);
  EXPECT_EQ(texts(), (std::vector<std::string>{"event 2", "event 3", "event 4", "event 5"}));
  std::vector<Rivlog::Record> records = Rivlog::ring().records();
  EXPECT_EQ(records.front().seq, first + 2);
  EXPECT_EQ(records.back().seq, first + 5);
  EXPECT_EQ(records.back().handle, &h);
  EXPECT_EQ(records.back().level, 1);
  EXPECT_LE(records.front().timeNs, records.back().timeNs);
  EXPECT_EQ(Rivlog::ring().written(), first + 6);
}

TEST_F(RivlogTest, ClearForgetsRecordsButKeepsNumbering) {
  RIVLOG(h, 1, "old");
  Zum::U64 written = Rivlog::ring().written();
  Rivlog::ring().clear();
  EXPECT_EQ(Rivlog::ring().size(), 0u);
  RIVLOG(h, 1, "new");
  EXPECT_EQ(texts(), std::vector<std::string>{"new"});
  EXPECT_EQ(Rivlog::ring().records().front().seq, written);
}

TEST_F(RivlogTest, LevelFiltersAndSkipsArgumentEvaluation) {
  Rivlog::Handle& quiet = Rivlog::handle("RivlogTestQuiet");
  EXPECT_EQ(&quiet, &Rivlog::handle("RivlogTestQuiet"));
  quiet.levelIs(2);
  int evaluated = 0;
  RIVLOG(quiet, 3, "dropped %d", ++evaluated);
  RIVLOG(quiet, 2, "kept %d", ++evaluated);
  Rivlog::write(quiet, 5, "dropped too");
  EXPECT_EQ(evaluated, 1);
  EXPECT_EQ(texts(), std::vector<std::string>{"kept 1"});
}

TEST_F(RivlogTest, CutsLongTextToRecordSize) {
  std::string longText(300, 'x');
  RIVLOG(h, 0, "%s", longText.c_str());
  EXPECT_EQ(texts().front(), std::string(Rivlog::textCapacity - 1, 'x'));
}

TEST_F(RivlogTest, RecordTextNamesNumberHandleAndLevel) {
  RIVLOG(h, 3, "hello %s", "ring");
  std::string text = Rivlog::recordText(Rivlog::ring().records().front());
  std::string seq = std::to_string(Rivlog::ring().written() - 1);
  EXPECT_EQ(text.rfind(seq + " ", 0), 0u) << text;
  EXPECT_NE(text.find(" RivlogTest/3 hello ring"), std::string::npos) << text;
  EXPECT_EQ(text.size(), seq.size() + std::string(" hh:mm:ss.uuuuuu RivlogTest/3 hello ring").size());
}

// Records written after 2038, past a 32-bit time_t, still read as their time
// of day: 2040-01-01 00:00:00.0015 UTC.
TEST_F(RivlogTest, RecordTextReadsTimesPast2038) {
  RIVLOG(h, 3, "late");
  Rivlog::Record r = Rivlog::ring().records().front();
  r.timeNs = 2208988800ull * 1000000000u + 1500000u;
  const char* tz = std::getenv("TZ");
  const std::string savedTz = tz ? tz : "";
  setenv("TZ", "UTC0", 1);
  tzset();
  const std::string text = Rivlog::recordText(r);
  if (tz) {
    setenv("TZ", savedTz.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
  EXPECT_NE(text.find(" 00:00:00.001500 RivlogTest/3 late"), std::string::npos) << text;
}

TEST_F(RivlogTest, DumpsHeadingThenNewestRecordsWithinListCapOldestFirst) {
  for (const char* t : {"one", "two", "three"}) RIVLOG(h, 1, "%s", t);
  std::string text = dumpText();
  EXPECT_EQ(text.rfind("Rivlog ring: 3 records kept of ", 0), 0u) << text;
  EXPECT_NE(text.find(", capacity 4\n"), std::string::npos);
  EXPECT_LT(text.find("RivlogTest/1 one\n"), text.find("RivlogTest/1 two\n"));
  EXPECT_EQ(truncatedCalls_, 0);

  text = dumpText(2);
  EXPECT_EQ(truncatedCalls_, 1);
  EXPECT_NE(text.find("  (1 older records not dumped)\n"), std::string::npos) << text;
  EXPECT_EQ(text.find(" one\n"), std::string::npos);
  EXPECT_LT(text.find(" two\n"), text.find(" three\n"));
}
