#include "Olk/AgentSocketHandler.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <fstream>
#include <sstream>
#include <thread>
#include <vector>

#include "Olk/AgentSocketTestClient.h"
#include "Olk/DumpContext.h"
#include "TestSupport.h"
#include "platform/Exception.h"
#include "platform/Log.h"
#include "platform/Trace.h"

using namespace Olk;
using OlkTest::commandAsUid;
using OlkTest::pumpUntil;
using OlkTest::roundTrip;
using OlkTest::sendCommand;

namespace {

// Records every command it serves and answers with a fixed reply.
class RecordingCallback : public AgentSocketCallback {
 public:
  std::vector<String> args;
  String reply = "ok\n";

  void handleCommand(U32 clientFd, const String& commandArgs) override {
    args.push_back(commandArgs);
    writeToClient(static_cast<int>(clientFd), reply);
  }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit RecordingCallback(const String& word) : AgentSocketCallback("recorder", word) {}
};

class ClientCounter : public AgentSocketHandlerSm::Notifiee {
 public:
  int changes = 0;
  void onClient(const String&) override { ++changes; }
};

class AgentSocketHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    listen();
    recorder = Zum::create<RecordingCallback>("echo");
    handler->agentSocketCallbackIs(recorder);
    Zum::logSinkIs([this](const Zum::LogRecord& r) {
      logs.push_back(r.key);
      logTexts.push_back(r.text);
    });
  }
  void TearDown() override { Zum::logSinkIs(nullptr); }

  // (Re)creates the handler listening as `name`.
  void listen() {
    handler = nullptr;
    handler = agentSocketHandlerSmFactory(name);
    // Without CAP_NET_ADMIN every command would be refused; the refusal has
    // its own tests below.
    if (!OlkTest::mayForceSendBuffer()) handler->sndBufFallbackIs(true);
  }

  const String name = OlkTest::uniqueSocketName("ash");
  Ptr<AgentSocketHandlerSm> handler;
  Ptr<RecordingCallback> recorder;
  std::vector<String> logs;
  std::vector<String> logTexts;
};

int pipeSignals = 0;
void countPipeSignal(int) { ++pipeSignals; }

// Installs countPipeSignal for SIGPIPE; at the end checks that the handler
// put it back after serving, and restores the one found.
class PipeSignalCounter {
 public:
  PipeSignalCounter() {
    struct sigaction mine {};
    mine.sa_handler = countPipeSignal;
    sigemptyset(&mine.sa_mask);
    sigaction(SIGPIPE, &mine, &saved_);
  }
  ~PipeSignalCounter() {
    struct sigaction after {};
    sigaction(SIGPIPE, nullptr, &after);
    EXPECT_EQ(&countPipeSignal, after.sa_handler);
    sigaction(SIGPIPE, &saved_, nullptr);
  }

 private:
  struct sigaction saved_ {};
};

// Serves `word` by running `body` on the client's descriptor.
class FnCallback : public AgentSocketCallback {
 public:
  void handleCommand(U32 clientFd, const String&) override { body_(static_cast<int>(clientFd)); }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  FnCallback(const String& word, std::function<void(int)> body) : AgentSocketCallback(word, word), body_(body) {}
  std::function<void(int)> body_;
};

constexpr uid_t nobody = 65534;

// Takes CAP_NET_ADMIN out of every capability set of this process, so that
// forcing a send buffer is refused as it is for an agent without it.
bool dropNetAdmin() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct caps[_LINUX_CAPABILITY_U32S_3] = {};
  if (syscall(SYS_capget, &header, caps) != 0) return false;
  const U32 bit = 1u << (CAP_NET_ADMIN % 32);
  __user_cap_data_struct& word = caps[CAP_NET_ADMIN / 32];
  word.effective &= ~bit;
  word.permitted &= ~bit;
  word.inheritable &= ~bit;
  return syscall(SYS_capset, &header, caps) == 0 && !OlkTest::mayForceSendBuffer();
}

// Serves one "echo" from an agent without CAP_NET_ADMIN and ends the process,
// leaving on standard error what it printed itself, then
// "reply=[...] served=N clients=N" and the send-buffer trace lines and the
// log lines, one per line.
[[noreturn]] void echoWithoutNetAdmin(bool sndBufFallback) {
  if (!dropNetAdmin()) {
    fprintf(stderr, "cannot drop CAP_NET_ADMIN\n");
    _exit(1);
  }
  Zum::TraceCapture trace(9);
  std::vector<String> logs;
  Zum::logSinkIs([&](const Zum::LogRecord& r) { logs.push_back(String(r.key) + ": " + r.text); });
  const String name = OlkTest::uniqueSocketName("noadmin");
  auto handler = agentSocketHandlerSmFactory(name);
  handler->sndBufFallbackIs(sndBufFallback);
  auto recorder = Zum::create<RecordingCallback>("echo");
  handler->agentSocketCallbackIs(recorder);
  const String reply = roundTrip(name, "echo");
  String report = "reply=[" + reply + "] served=" + std::to_string(recorder->args.size()) +
                  " clients=" + std::to_string(handler->clientCount()) + "\n";
  for (const String& line : trace.texts()) {
    if (line.find("SNDBUF") != String::npos || line.find("setsockopt") != String::npos) {
      report += "trace: " + line + "\n";
    }
  }
  for (const String& log : logs) report += log + "\n";
  fputs(report.c_str(), stderr);
  fflush(stderr);
  _exit(0);
}

class ProbeSm : public BaseOutputSm {};

class FdRecorder : public AgentSocketHandlerSm::Notifiee {
 public:
  std::vector<String> names;
  void onFd(const String& name) override { names.push_back(name); }
};

// Runs "drop" against `handler`, its command sent before the agent accepts
// (served at accept) or after (served on a later readability), and returns
// the reply.
String dropFromInsideCommand(const String& name, bool sendBeforeAccept) {
  const int sock = OlkTest::connectToAgent(name);
  if (sendBeforeAccept) send(sock, "drop", 4, 0);
  Zum::activityManager()->runOnce(0);
  if (!sendBeforeAccept) {
    send(sock, "drop", 4, 0);
    Zum::activityManager()->runOnce(0);
  }
  char buf[16];
  const ssize_t n = recv(sock, buf, sizeof(buf), MSG_DONTWAIT);
  close(sock);
  return n > 0 ? String(buf, static_cast<size_t>(n)) : String("<no reply>");
}

}  // namespace

TEST_F(AgentSocketHandlerTest, ListensOnAbstractNameWithoutTerminator) {
  EXPECT_TRUE(handler->initialized());
  // The bound name must be exactly "s<name>": a client that appends the NUL
  // addresses a different socket.
  int sock = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  String path = "s" + name;
  memcpy(addr.sun_path + 1, path.c_str(), path.size() + 1);
  socklen_t withNul = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 2 + path.size());
  EXPECT_NE(0, connect(sock, reinterpret_cast<sockaddr*>(&addr), withNul));
  close(sock);
  EXPECT_EQ("ok\n", roundTrip(name, "echo"));
}

TEST_F(AgentSocketHandlerTest, SplitsAtFirstBlankOnly) {
  Zum::TraceCapture trace(9);
  EXPECT_EQ("ok\n", roundTrip(name, "echo"));
  EXPECT_EQ("ok\n", roundTrip(name, "echo  two  blanks "));
  EXPECT_EQ("ok\n", roundTrip(name, "echo a b"));
  EXPECT_EQ("ok\n", roundTrip(name, "echo " + String(4995, 'a')));  // cut at 1027 bytes
  EXPECT_EQ((std::vector<String>{"", " two  blanks ", "a b", String(1027 - 5, 'a')}), recorder->args);
  EXPECT_TRUE(trace.contains("Received command: echo arg:  two  blanks "));
  EXPECT_TRUE(trace.contains("Closing: clientFd:"));
  EXPECT_EQ(0u, handler->clientCount());
  EXPECT_EQ(0u, handler->fdCount());

  recorder->reply = String(1 << 20, 'r');  // a large reply to a patient client arrives whole
  EXPECT_EQ(recorder->reply, roundTrip(name, "echo"));
}

TEST_F(AgentSocketHandlerTest, CommandWaitingAtAcceptIsServedInTheSameRound) {
  const int sock = OlkTest::connectToAgent(name);
  ASSERT_GE(sock, 0);
  ASSERT_EQ(4, send(sock, "echo", 4, 0));  // queued before the agent accepts
  Zum::activityManager()->runOnce(0);
  char buf[16];
  EXPECT_EQ(3, recv(sock, buf, sizeof(buf), MSG_DONTWAIT));  // "ok\n", no second round
  EXPECT_EQ(0, recv(sock, buf, sizeof(buf), MSG_DONTWAIT));  // and closed
  EXPECT_EQ(1u, recorder->args.size());
  EXPECT_EQ(0u, handler->clientCount());
  close(sock);
}

TEST_F(AgentSocketHandlerTest, UnknownCommandGetsFixedReplyThenEnd) {
  EXPECT_EQ(String("Unknown Command \n", 17), roundTrip(name, "nosuch arg"));
  // Matching is exact: a trailing newline makes another word.
  EXPECT_EQ("Unknown Command \n", roundTrip(name, "echo\n"));
  EXPECT_TRUE(recorder->args.empty());

  // A callback for the same word replaces the first; removing it leaves none.
  auto second = Zum::create<RecordingCallback>("echo");
  second->reply = "second\n";
  handler->agentSocketCallbackIs(second);
  EXPECT_EQ("second\n", roundTrip(name, "echo"));
  handler->agentSocketCallbackDel("echo");
  EXPECT_EQ("Unknown Command \n", roundTrip(name, "echo"));
}

TEST_F(AgentSocketHandlerTest, ManyConcurrentClientsAllAnsweredDespiteSilentOnes) {
  constexpr int talkers = 40;
  constexpr int silent = 10;
  ClientCounter counter;  // one change per client added or removed
  counter.notifierIs(handler);
  std::vector<int> silentSocks;
  for (size_t i = 1; i <= silent; ++i) {  // one at a time: the backlog holds only a few
    silentSocks.push_back(OlkTest::connectToAgent(name));
    ASSERT_TRUE(pumpUntil([&] { return handler->clientCount() == i; }));
  }

  std::atomic<int> answered{0};
  std::vector<std::thread> clients;
  for (int i = 0; i < talkers; ++i) {
    clients.emplace_back([&, i] {
      if (sendCommand(name, "echo " + std::to_string(i)) == "ok\n") ++answered;
    });
  }
  EXPECT_TRUE(pumpUntil([&] { return answered == talkers; }));
  for (auto& t : clients) t.join();
  EXPECT_EQ(talkers, answered.load());
  std::vector<String> seen = recorder->args;
  std::sort(seen.begin(), seen.end());
  EXPECT_EQ(talkers, std::unique(seen.begin(), seen.end()) - seen.begin());
  EXPECT_EQ(size_t(silent), handler->clientCount());
  for (int s : silentSocks) close(s);
  EXPECT_TRUE(pumpUntil([&] { return handler->clientCount() == 0; }));
  EXPECT_EQ(2 * (talkers + silent), counter.changes);
  EXPECT_EQ(0u, handler->fdCount());
}

TEST_F(AgentSocketHandlerTest, IdleClientsClosedAtTimeout) {
  auto clock = Zum::manualClockFactory(100.0);
  handler->clockIs(clock);
  handler->idleTimeoutIs(2.0);
  Zum::TraceCapture trace(3);
  int idle = OlkTest::connectToAgent(name);
  ASSERT_TRUE(pumpUntil([&] { return handler->clientCount() == 1; }));
  clock->advance(1.0);
  int late = OlkTest::connectToAgent(name);
  ASSERT_TRUE(pumpUntil([&] { return handler->clientCount() == 2; }));

  clock->advance(1.0);  // the first is due, the second has a second left
  EXPECT_EQ(1u, handler->clientCount());
  EXPECT_EQ("", OlkTest::readAll(idle));
  EXPECT_TRUE(trace.contains("Idle client closed: clientFd:"));
  EXPECT_EQ(std::vector<String>{"AGENT_SOCKET_IDLE_CLIENT"}, logs);

  // A client that speaks before its time-out is served and not closed twice.
  send(late, "echo", 4, 0);
  ASSERT_TRUE(pumpUntil([&] { return handler->clientCount() == 0; }));
  EXPECT_EQ("ok\n", OlkTest::readAll(late));
  clock->advance(10.0);
  EXPECT_EQ(1u, logs.size());
  close(idle);
  close(late);
}

TEST_F(AgentSocketHandlerTest, ConnectionsBeyondCapRefusedWithoutHarm) {
  handler->maxClientsIs(3);
  std::vector<int> held;
  for (int i = 0; i < 3; ++i) held.push_back(OlkTest::connectToAgent(name));
  ASSERT_TRUE(pumpUntil([&] { return handler->clientCount() == 3; }));

  EXPECT_EQ("Too many clients connected, try again later\n", roundTrip(name, "echo"));
  EXPECT_EQ(std::vector<String>{"AGENT_SOCKET_CLIENT_LIMIT"}, logs);
  EXPECT_EQ(3u, handler->clientCount());

  for (int s : held) send(s, "echo", 4, 0);
  ASSERT_TRUE(pumpUntil([&] { return handler->clientCount() == 0; }));
  for (int s : held) {
    EXPECT_EQ("ok\n", OlkTest::readAll(s));
    close(s);
  }
  EXPECT_EQ(3u, recorder->args.size());
}

TEST_F(AgentSocketHandlerTest, VanishedClientDuringLargeReplyDoesNotKillAgent) {
  PipeSignalCounter pipes;
  void (*dispositionDuringCommand)(int) = nullptr;
  ssize_t lastWrite = 0;
  handler->agentSocketCallbackIs(Zum::create<FnCallback>("big", [&](int fd) {
    struct sigaction now {};
    sigaction(SIGPIPE, nullptr, &now);
    dispositionDuringCommand = now.sa_handler;
    String reply(1 << 20, 'x');  // with plain write(), as a careless callback would
    for (int i = 0; i < 4; ++i) lastWrite = write(fd, reply.data(), reply.size());
  }));

  int sock = OlkTest::connectToAgent(name);
  send(sock, "big", 3, 0);
  close(sock);  // gone before the agent even reads the command
  ASSERT_TRUE(pumpUntil([&] { return dispositionDuringCommand != nullptr; }));

  EXPECT_EQ(SIG_IGN, dispositionDuringCommand);
  EXPECT_EQ(-1, lastWrite);
  EXPECT_EQ(0, pipeSignals);
  EXPECT_EQ("ok\n", roundTrip(name, "echo"));
}

TEST_F(AgentSocketHandlerTest, ThrowingCallbackEndsOnlyItsCommand) {
  PipeSignalCounter pipes;
  handler->agentSocketCallbackIs(Zum::create<FnCallback>("throw", [](int fd) {
    writeToClient(fd, "partial\n");
    throw Zum::RangeException("boom");
  }));

  EXPECT_EQ("partial\n", roundTrip(name, "throw"));
  EXPECT_EQ(std::vector<String>{"Error (boom) on command execution"}, logTexts);
  EXPECT_EQ(0u, handler->clientCount());
  EXPECT_EQ("ok\n", roundTrip(name, "echo"));
}

TEST_F(AgentSocketHandlerTest, PeerCredentialCheckRefusesOtherUids) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to run a client as uid 65534 (CI does)";
  EXPECT_FALSE(handler->peerCredentialCheck());
  EXPECT_EQ("ok\n", commandAsUid(name, nobody, "echo"));  // off by default
  ASSERT_EQ(1u, recorder->args.size());

  handler->peerCredentialCheckIs(true);
  EXPECT_EQ("Permission denied: uid 65534 may not send commands to this agent\n",
            commandAsUid(name, nobody, "echo"));
  EXPECT_EQ(1u, recorder->args.size());  // the refused command never ran
  EXPECT_EQ(std::vector<String>{"AGENT_SOCKET_PEER_REFUSED"}, logs);
  ASSERT_EQ(1u, logTexts.size());
  EXPECT_EQ(0u, logTexts[0].find("Refused command connection from uid 65534 pid "));
  EXPECT_EQ(0u, handler->clientCount());
  EXPECT_EQ("ok\n", roundTrip(name, "echo"));  // the agent's own uid

  handler->allowedUidIs(nobody);
  EXPECT_EQ("ok\n", commandAsUid(name, nobody, "echo"));
  EXPECT_EQ(3u, recorder->args.size());
}

namespace {

// A regular expression matching exactly `text`.
std::string exactly(const std::string& text) {
  std::string re = "^";
  for (char c : text) {
    if (strchr("\\^$.|?*+()[]{}", c)) re += '\\';
    re += c;
  }
  return re + "$";
}

bool writes(const std::string& path, const std::string& text) {
  std::ofstream out(path);
  out << text;
  out.flush();
  return static_cast<bool>(out);
}

// Maps, in the user namespace of `pid`, 0 to our own ids and 1 to uid and
// gid 65534 (only root may map an id other than its own).
bool mapSecondUid(pid_t pid) {
  const std::string p = std::to_string(pid);
  return writes("/proc/" + p + "/uid_map", "0 " + std::to_string(getuid()) + " 1\n1 65534 1\n") &&
         writes("/proc/" + p + "/gid_map", "0 " + std::to_string(getgid()) + " 1\n1 65534 1\n");
}

// Inside the namespace: an agent with the check on, asked by itself (uid 0)
// and by a client running as uid 1. Runs on a fresh thread, whose loop is
// not the one this process shares with its parent.
std::string refusalOfSecondUid() {
  std::string report;
  std::thread agent([&] {
    std::vector<String> logs;
    Zum::logSinkIs([&](const Zum::LogRecord& r) { logs.push_back(r.key); });
    const String name = OlkTest::uniqueSocketName("userns");
    auto handler = agentSocketHandlerSmFactory(name);
    handler->peerCredentialCheckIs(true);
    // Capabilities held in a user namespace do not include forcing buffers.
    handler->sndBufFallbackIs(!OlkTest::mayForceSendBuffer());
    auto recorder = Zum::create<RecordingCallback>("echo");
    handler->agentSocketCallbackIs(recorder);
    report = "uid " + std::to_string(geteuid()) + ": " + roundTrip(name, "echo");
    report += "uid 1: " + commandAsUid(name, 1, "echo");
    report += "served: " + std::to_string(recorder->args.size()) + "\n";
    for (const String& key : logs) report += key + "\n";
    Zum::logSinkIs(nullptr);
  });
  agent.join();
  return report;
}

// Runs refusalOfSecondUid in a child inside a new user namespace, prints its
// report on standard error and ends the process.
[[noreturn]] void refuseSecondUidInUserNamespace() {
  int ready[2], go[2], out[2];
  if (pipe(ready) != 0 || pipe(go) != 0 || pipe(out) != 0) _exit(2);
  const pid_t pid = fork();
  if (pid == 0) {
    const bool unshared = unshare(CLONE_NEWUSER) == 0;
    (void)!write(ready[1], unshared ? "y" : "n", 1);
    char mapped = 'n';
    (void)!read(go[0], &mapped, 1);
    const std::string report = mapped == 'y' ? refusalOfSecondUid() : "<no user namespace>\n";
    (void)!write(out[1], report.data(), report.size());
    _exit(0);
  }
  close(out[1]);
  char unshared = 'n';
  (void)!read(ready[0], &unshared, 1);
  const bool mapped = unshared == 'y' && mapSecondUid(pid);
  (void)!write(go[1], mapped ? "y" : "n", 1);
  const std::string report = OlkTest::readAll(out[0]);
  waitpid(pid, nullptr, 0);
  fputs(report.c_str(), stderr);
  _exit(0);
}

// Whether this process may make a user namespace (not inside a chroot, nor
// where the kernel forbids it); probed in a child, which it would change.
bool userNamespacesAvailable() {
  const pid_t pid = fork();
  if (pid == 0) _exit(unshare(CLONE_NEWUSER) == 0 ? 0 : 1);
  int status = 0;
  return pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace

// The same refusal in a user namespace, where the agent is uid 0 and the
// client uid 1. It runs in a freshly started copy of the test program so
// that no earlier log is still rate-limited.
TEST(AgentSocketHandlerUserNamespaceDeathTest, PeerCredentialCheckRefusesSecondUid) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to map a second uid into a user namespace (CI does)";
  if (!userNamespacesAvailable()) GTEST_SKIP() << "no user namespaces here (a chroot, or disabled by the kernel)";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(refuseSecondUidInUserNamespace(), testing::ExitedWithCode(0),
              exactly("uid 0: ok\n"
                      "uid 1: Permission denied: uid 1 may not send commands to this agent\n"
                      "served: 1\n"
                      "AGENT_SOCKET_PEER_REFUSED\n"));
}

// These run in a freshly started copy of the test program, so that neither
// an earlier test's rate-limited log nor this process's loop interferes, and
// the capability drop stays there.
TEST(AgentSocketHandlerSendBufferDeathTest, RefusedForceClosesTheConnectionUnanswered) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(echoWithoutNetAdmin(false), testing::ExitedWithCode(0),
              exactly("setsockopt on SO_SNDBFFORCE: Operation not permitted\n"
                      "reply=[] served=0 clients=0\n"
                      "trace: setsockopt failed with err= 1\n"
                      "AGENT_SOCKET_COMMAND_ERROR: Error (Operation not permitted) on command "
                      "execution\n"));
}

TEST(AgentSocketHandlerSendBufferDeathTest, FallbackServesWhenOptedIn) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(echoWithoutNetAdmin(true), testing::ExitedWithCode(0),
              exactly("reply=[ok\n] served=1 clients=0\n"
                      "trace: SO_SNDBUFFORCE not permitted, asking SO_SNDBUF instead\n"));
}

// Null arguments and a second handler for a client's descriptor are range
// errors that leave no client behind.
TEST_F(AgentSocketHandlerTest, MutatorsRefuseNullAndAClientCannotChangeHandler) {
  OlkTest::expectRangeError([&] { handler->agentSocketCallbackIs(nullptr); },
                            "null _agentSocketCallback parameter to mutator for "
                            "Olk::AgentSocketHandlerSm::agentSocketCallback not allowed\"");
  OlkTest::expectRangeError([&] { handler->fdIs(nullptr); },
                            "null _fd parameter to mutator for Olk::AgentSocketHandlerSm::fd not allowed\"");
  int pair[2];
  ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, pair));
  auto fd = Zum::activityManager()->fileDescriptorNew(pair[0], clientFdName(pair[0]));
  OlkTest::expectRangeError([&] { handler->clientIs(fd, nullptr); },
                            "null _client parameter to mutator for Olk::AgentSocketHandlerSm::client not allowed\"");
  EXPECT_EQ(0u, handler->clientCount());

  auto client = handler->clientIs(fd, handler.ptr());
  EXPECT_EQ(client, handler->clientIs(fd, handler.ptr()));
  EXPECT_EQ(client, handler->client(clientFdName(pair[0])));
  auto other = agentSocketHandlerSmFactory(OlkTest::uniqueSocketName("other"));
  const String text = OlkTest::rangeErrorText([&] { handler->clientIs(fd, other.ptr()); });
  EXPECT_EQ(0u, text.find("Reinstantiating the pointer interface where constructor parameter attribute "
                          "_agentSocketHandlerSm has a different value of "));
  EXPECT_NE(String::npos, text.find(" than the current value of "));
  handler->clientDel(clientFdName(pair[0]));
  EXPECT_EQ(0u, handler->clientCount());
  close(pair[1]);
}

TEST(AgentSocketHandlerDeathTest, SecondListenerOnSameNameIsFatal) {
  String name = OlkTest::uniqueSocketName("dup");
  auto first = agentSocketHandlerSmFactory(name);
  EXPECT_DEATH(agentSocketHandlerSmFactory(name), "0 && \"socket bind failure\"");
}

TEST(AgentSocketHandlerDeathTest, NoDescriptorForTheSocketIsFatal) {
#ifdef __SANITIZE_ADDRESS__
  // The sanitizers' own memory checks need a pipe, so without descriptors
  // they fail before the code under test does.
  GTEST_SKIP() << "needs free descriptors under the sanitizers";
#endif
  String name = OlkTest::uniqueSocketName("nofd");
  auto listenWithoutDescriptors = [&] {
    Zum::activityManager();
    const rlimit none{0, 0};
    setrlimit(RLIMIT_NOFILE, &none);
    agentSocketHandlerSmFactory(name);
  };
  EXPECT_DEATH(listenWithoutDescriptors(),
               "Creating unix socket: Too many open files(.|\n)*0 && \"socket failed\"");
}

TEST(AgentSocketHandlerDeathTest, RunCommandWithoutAgentIsFatal) {
  EXPECT_DEATH(runCommand(OlkTest::uniqueSocketName("none"), "help", 1.0),
               "Failed\\(0\\) connect failed(.|\n)*!\"0\"");
}

TEST_F(AgentSocketHandlerTest, RunCommandDeliversCommandText) {
  testing::internal::CaptureStdout();
  runCommand(name, "echo hello world", 1.0);
  String out = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(pumpUntil([&] { return !recorder->args.empty(); }));
  EXPECT_EQ("hello world", recorder->args[0]);
  EXPECT_EQ("Socket name: " + name + "\nSent 16 bytes: echo hello world\n", out);
}

TEST_F(AgentSocketHandlerTest, DumpAndStreamShowNamedDescriptorsClientsCommandsAndType) {
  FdRecorder fds;
  fds.notifierIs(handler);
  const int silent = OlkTest::connectToAgent(name);
  ASSERT_TRUE(pumpUntil([&] { return handler->clientCount() == 1; }));
  ASSERT_EQ(1u, fds.names.size());
  const String clientName = fds.names[0];
  ASSERT_EQ(0u, clientName.find("clientFd:"));
  const int clientFd = handler->fd(clientName)->fd();
  EXPECT_EQ(clientFdName(clientFd), clientName);
  EXPECT_EQ(clientName, handler->fd(clientName)->name());
  EXPECT_EQ("AgentSocketHandler server", handler->agentsockFd()->name());

  int pair[2];
  ASSERT_EQ(0, pipe(pair));
  handler->dumpState(DumpContext::dumpContext(pair[1], dumpNormal, false), dumpNormal);
  handler->dumpState(DumpContext::dumpContext(pair[1], dumpVerbose, false), dumpVerbose);
  close(pair[1]);
  const String text = OlkTest::readAll(pair[0]);
  close(pair[0]);
  const String once = "AgentSocketHandlerSm socket: s" + name + " initialized: 1\n" +
                      "  agentsockFd: AgentSocketHandler server fd: " +
                      std::to_string(handler->agentsockFd()->fd()) + "\n" +
                      "  peerCredentialCheck: 0 sndBufFallback: " +
                      std::to_string(handler->sndBufFallback()) +
                      " maxClients: 128 idleTimeout: 60 clients: 1 commands: 1\n" +
                      "  fd: " + clientName + "\n  client: " + clientName + "\n";
  EXPECT_EQ(once + once + "  command: echo (recorder)\n", text);
  close(silent);

  // Streaming names the most-derived type.
  std::ostringstream types;
  types << *handler << ' ' << *Zum::create<ProbeSm>();
  EXPECT_EQ(0u, types.str().find("Olk::AgentSocketHandlerSm "));
  EXPECT_NE(String::npos, types.str().find("ProbeSm", 26));
}

TEST_F(AgentSocketHandlerTest, CallbackMayDropLastReferenceToHandler) {
  for (bool sendBeforeAccept : {true, false}) {
    SCOPED_TRACE(sendBeforeAccept ? "served at accept" : "served on readability");
    listen();
    handler->agentSocketCallbackIs(Zum::create<FnCallback>("drop", [&](int fd) {
      handler = nullptr;  // the agent's only reference, dropped from inside a command
      writeToClient(fd, "bye\n");
    }));
    Zum::TraceCapture trace(9);
    EXPECT_EQ("bye\n", dropFromInsideCommand(name, sendBeforeAccept));
    EXPECT_EQ(nullptr, handler);
    EXPECT_TRUE(trace.contains("handleDeletion"));
    EXPECT_TRUE(trace.contains("Socket deleted"));
    EXPECT_EQ("<no agent>", sendCommand(name, "echo"));
  }
}
