#include "Olk/SimpleAgentSocketHandler.h"

#include <gtest/gtest.h>

#include "Olk/AgentSocketTestClient.h"
#include "Olk/TaskScheduler.h"
#include "TestSupport.h"
#include "platform/Exception.h"
#include "platform/Log.h"

using namespace Olk;

namespace {

class SimpleAgentSocketHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Zum::logSinkIs([this](const Zum::LogRecord& r) { logs.push_back(r.text); });
    if (!OlkTest::mayForceSendBuffer()) commands->agentSocketHandlerSm()->sndBufFallbackIs(true);
  }
  void TearDown() override { Zum::logSinkIs(nullptr); }

  String ask(const String& command) { return OlkTest::roundTrip(name, command); }

  const String name = OlkTest::uniqueSocketName("simple");
  Ptr<SimpleAgentSocketHandler> commands = simpleAgentSocketHandlerFactory(name);
  std::vector<String> logs;
};

String nothing(const CommandArgs&) { return ""; }

}  // namespace

// First: the failure log is rate-limited per key, and later tests fail commands too.
TEST_F(SimpleAgentSocketHandlerTest, ThrowingFunctionGetsErrorReplyAndLog) {
  commands->commandIs("bad", "bad", 0, 0, [](const CommandArgs&) -> String {
    throw CommandError("no can do");
  });
  EXPECT_EQ("error: no can do\n", ask("bad"));
  ASSERT_EQ(1u, logs.size());
  EXPECT_EQ("Command bad failed: no can do", logs[0]);
  EXPECT_EQ(0u, commands->agentSocketHandlerSm()->clientCount());
}

TEST_F(SimpleAgentSocketHandlerTest, HelpListsUsageLinesSortedByWordOfValidCommands) {
  commands->commandIs("stats", "stats: shows statistics", 0, 0, nothing);
  commands->commandIs("add", "add <a> <b>: sums", 2, 2, nothing);
  EXPECT_EQ("add <a> <b>: sums\nhelp: lists the commands\nstats: shows statistics\n", ask("help"));
  commands->commandDel("stats");
  EXPECT_FALSE(commands->command("stats"));
  EXPECT_EQ("Unknown Command \n", ask("stats"));
  EXPECT_EQ(2u, commands->commandCount());

  // Refused definitions leave nothing behind.
  EXPECT_THROW(commands->commandIs("x", "x", 0, 0, nullptr), Zum::RangeException);
  OlkTest::expectRangeError([&] { commands->commandIs("y", "y", 2, 1, nothing); },
                            "SimpleAgentSocketHandler::minArgs > maxArgs not allowed");
  EXPECT_FALSE(commands->command("x"));
  EXPECT_EQ("Unknown Command \n", ask("y"));
}

TEST_F(SimpleAgentSocketHandlerTest, ArgumentsArriveSplitIntoWords) {
  std::vector<std::vector<String>> seen;
  commands->commandIs("echo", "echo <text>...", 0, SimpleAgentSocketHandler::anyArgs, [&](const CommandArgs& a) {
    seen.push_back(a.words());
    return "[" + a.text() + "]\n";
  });
  EXPECT_EQ("[a  b\tc]\n", ask("echo a  b\tc"));
  EXPECT_EQ("[]\n", ask("echo"));
  EXPECT_EQ("[ x]\n", ask("echo  x"));
  EXPECT_EQ((std::vector<std::vector<String>>{{"a", "b", "c"}, {}, {"x"}}), seen);
}

TEST_F(SimpleAgentSocketHandlerTest, WrongNumberOfArgumentsGetsTheUsageLineAndNeverTheFunction) {
  int calls = 0;
  commands->commandIs("pick", "pick <what> [<how>]: picks", 1, 2, [&](const CommandArgs& a) {
    ++calls;
    return std::to_string(a.size()) + "\n";
  });
  const String usage = "error: usage: pick <what> [<how>]: picks\n";
  EXPECT_EQ(usage, ask("pick"));
  EXPECT_EQ("1\n", ask("pick a"));
  EXPECT_EQ("2\n", ask("pick a b"));
  EXPECT_EQ(usage, ask("pick a b c"));
  EXPECT_EQ(2, calls);
  EXPECT_EQ("error: usage: help: lists the commands\n", ask("help me"));
}

TEST_F(SimpleAgentSocketHandlerTest, NumbersAreCheckedAgainstTheirRange) {
  commands->commandIs("add", "add <a> <b>: sums", 2, 2, [](const CommandArgs& a) {
    return std::to_string(a.number(0, 0, 1000) + a.number(1, 0, 1000)) + "\n";
  });
  EXPECT_EQ("1000\n", ask("add 0 1000"));
  EXPECT_EQ("error: argument 2: expected a number from 0 to 1000, not '1001'\n", ask("add 1 1001"));
  EXPECT_EQ("error: argument 1: expected a number from 0 to 1000, not 'x'\n", ask("add x 1"));

  const CommandArgs args("-1 +1 0x10 4294967296 99999999999 4294967295 5");
  for (std::size_t i = 0; i < 5; ++i) {
    EXPECT_THROW(args.number(i, 0, 0xffffffffu), CommandError) << args[i];
  }
  EXPECT_EQ(0xffffffffu, args.number(5, 0, 0xffffffffu));
  EXPECT_EQ(5u, args.number(6, 5, 5));
  EXPECT_THROW(args.number(6, 6, 9), CommandError);
  EXPECT_THROW(args.number(6, 0, 4), CommandError);
}

TEST_F(SimpleAgentSocketHandlerTest, DumpsReplyAsReturnedText) {
  Ptr<TaskSchedulerZumActivity> sched = taskSchedulerZumActivityFactory("dumped", Zum::manualClockFactory(0.0));
  commands->commandIs("dump", "dump", 0, 0, [&](const CommandArgs&) {
    return dumpText([&](const Ptr<const DumpContext>& ctx) {
      objDumpPrintf(ctx, "level %d\n", ctx->level());
      sched->printStats(ctx, false, false, false, false);
    }, dumpVerbose);
  });
  const String reply = ask("dump");
  EXPECT_EQ(0u, reply.rfind("level 1\n", 0)) << reply;
  EXPECT_NE(reply.find("Root scheduler dumped"), String::npos) << reply;
}

TEST_F(SimpleAgentSocketHandlerTest, DroppingTableTakesCommandsOffSocket) {
  Ptr<AgentSocketHandlerSm> socket = commands->agentSocketHandlerSm();
  commands = nullptr;
  EXPECT_TRUE(socket->agentSocketCallbacks().empty());
  EXPECT_EQ("Unknown Command \n", ask("help"));
}
