#include "Olk/SimpleAgentSocketHandler.h"

#include <gtest/gtest.h>

#include "Olk/AgentSocketTestClient.h"
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

}  // namespace

TEST_F(SimpleAgentSocketHandlerTest, HelpListsCommandsSortedWithUsage) {
  commands->commandIs("stats", "shows statistics", [](const CommandRequest&) { return ""; });
  commands->commandIs("add", "add <a> <b>: sums", [](const CommandRequest&) { return ""; });
  EXPECT_EQ("add - add <a> <b>: sums\nhelp - lists the commands\nstats - shows statistics\n",
            ask("help"));
  commands->commandDel("stats");
  EXPECT_FALSE(commands->command("stats"));
  EXPECT_EQ("Unknown Command \n", ask("stats"));
  EXPECT_EQ(2u, commands->commandCount());
}

TEST_F(SimpleAgentSocketHandlerTest, FunctionGetsArgumentsAndRepliesOnce) {
  std::vector<String> seen;
  commands->commandIs("echo", "echo <text>", [&](const CommandRequest& r) {
    seen.push_back(r.args);
    return "[" + r.args + "]\n";
  });
  EXPECT_EQ("[a  b]\n", ask("echo a  b"));
  EXPECT_EQ("[]\n", ask("echo"));
  EXPECT_EQ((std::vector<String>{"a  b", ""}), seen);
}

TEST_F(SimpleAgentSocketHandlerTest, FunctionMayWriteToClientDirectly) {
  commands->commandIs("raw", "raw", [](const CommandRequest& r) {
    writeToClient(r.clientFd, "direct ");
    return String("returned\n");
  });
  EXPECT_EQ("direct returned\n", ask("raw"));
}

TEST_F(SimpleAgentSocketHandlerTest, ThrowingFunctionGetsErrorReplyAndLog) {
  commands->commandIs("bad", "bad", [](const CommandRequest&) -> String {
    throw CommandError("usage: bad <n>");
  });
  EXPECT_EQ("error: usage: bad <n>\n", ask("bad"));
  ASSERT_EQ(1u, logs.size());
  EXPECT_EQ("Command bad failed: usage: bad <n>", logs[0]);
  EXPECT_EQ(0u, commands->agentSocketHandlerSm()->clientCount());
}

TEST_F(SimpleAgentSocketHandlerTest, EmptyFunctionRefused) {
  EXPECT_THROW(commands->commandIs("x", "x", nullptr), Zum::RangeException);
  EXPECT_FALSE(commands->command("x"));
}

TEST_F(SimpleAgentSocketHandlerTest, DroppingTableTakesCommandsOffSocket) {
  Ptr<AgentSocketHandlerSm> socket = commands->agentSocketHandlerSm();
  commands = nullptr;
  EXPECT_TRUE(socket->agentSocketCallbacks().empty());
  EXPECT_EQ("Unknown Command \n", ask("help"));
}

TEST_F(SimpleAgentSocketHandlerTest, OtherUidsRefusedUnlessAdmitted) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client under another uid (CI does)";
  int served = 0;
  commands->commandIs("count", "count", [&](const CommandRequest&) { return std::to_string(++served); });
  EXPECT_EQ("Permission denied: uid 65534 may not send commands to this agent\n",
            OlkTest::commandAsUid(name, 65534, "count"));
  EXPECT_EQ(0, served);
  commands->agentSocketHandlerSm()->allowedUidIs(65534);
  EXPECT_EQ("1", OlkTest::commandAsUid(name, 65534, "count"));
}
