// olkctl: send one command to an agent's command socket and print the reply.
//
//   olkctl [--timeout SECONDS] <agent> <command> [argument...]
//
// The agent listens on the abstract Unix socket "\0s<agent>". olkctl sends
// the command word and its arguments joined by single blanks, exactly the
// bytes that `printf '%s' 'cmd args' | socat - ABSTRACT-CONNECT:s<agent>`
// would send (no newline), then copies the reply to standard output byte for
// byte until the agent closes the connection.
//
// Exit status: 0 reply received; 1 bad usage (also an empty command or one
// longer than the 1027 bytes an agent reads); 2 no agent listens on that
// name; 3 the time-out (default 5 s) struck; 4 any other socket error; 5 the
// agent answered with an error (a reply that starts with "error: ", or
// "Unknown Command \n"), which is still printed in full.
#include <errno.h>
#include <poll.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

enum Exit { exitOk = 0, exitUsage = 1, exitNoAgent = 2, exitTimeout = 3, exitIo = 4, exitErrorReply = 5 };

const char* const usageText =
    "usage: olkctl [--timeout SECONDS] <agent> <command> [argument...]\n"
    "\n"
    "Sends one command to the agent listening on the abstract Unix socket\n"
    "\"\\0s<agent>\" and prints its reply until the agent closes the connection.\n"
    "The command and its arguments are sent joined by single blanks, at most\n"
    "1027 bytes in all.\n"
    "\n"
    "options:\n"
    "  -t, --timeout SECONDS  give up after this long (default 5)\n"
    "  -h, --help             show this text\n"
    "\n"
    "exit status: 0 reply received, 1 bad usage, 2 no agent listening,\n"
    "             3 timed out, 4 other socket error, 5 the agent answered\n"
    "             with an error (\"error: ...\" or \"Unknown Command \")\n"
    "\n"
    "example: olkctl demo help\n";

struct Options {
  double timeout = 5.0;
  std::string agent;
  std::string command;
};

// An agent takes what one receive of this many bytes returns: the rest of a
// longer command would be lost without a word.
constexpr size_t maxCommandBytes = 1027;

[[noreturn]] void usageError(const std::string& why) {
  fprintf(stderr, "olkctl: %s\nTry 'olkctl --help' for more information.\n", why.c_str());
  exit(exitUsage);
}

Options parse(int argc, char** argv) {
  Options o;
  int i = 1;
  for (; i < argc && argv[i][0] == '-'; ++i) {
    std::string opt = argv[i];
    if (opt == "-h" || opt == "--help") {
      fputs(usageText, stdout);
      exit(exitOk);
    }
    if (opt != "-t" && opt != "--timeout") usageError("unknown option " + opt);
    if (++i == argc) usageError("--timeout needs a value");
    char* end = nullptr;
    o.timeout = strtod(argv[i], &end);
    if (*end != '\0' || !(o.timeout > 0) || !std::isfinite(o.timeout)) {
      usageError("--timeout needs a positive number of seconds");
    }
  }
  if (argc - i < 2) usageError("an agent name and a command are required");
  o.agent = argv[i++];
  o.command = argv[i++];
  for (; i < argc; ++i) o.command += std::string(" ") + argv[i];
  // An empty command sends nothing, and the agent would wait for one.
  if (o.command.empty()) usageError("the command must not be empty");
  if (o.command.size() > maxCommandBytes) {
    usageError("the command has " + std::to_string(o.command.size()) + " bytes; an agent reads at most " +
               std::to_string(maxCommandBytes));
  }
  return o;
}

double monotonicNow() {
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

[[noreturn]] void fail(Exit code, const Options& o, const std::string& what) {
  fprintf(stderr, "olkctl: %s (agent '%s')\n", what.c_str(), o.agent.c_str());
  exit(code);
}

[[noreturn]] void timedOut(const Options& o) {
  char text[64];
  snprintf(text, sizeof(text), "timed out after %g s", o.timeout);
  fail(exitTimeout, o, text);
}

// Connects with the time-out bounding a connect that waits for the backlog.
int connectToAgent(const Options& o) {
  int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock < 0) fail(exitIo, o, std::string("socket: ") + strerror(errno));
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(o.timeout);
  tv.tv_usec = static_cast<suseconds_t>((o.timeout - std::floor(o.timeout)) * 1e6);
  setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  const std::string path = "s" + o.agent;
  if (path.size() > sizeof(addr.sun_path) - 2) usageError("agent name too long");
  memcpy(addr.sun_path + 1, path.data(), path.size());
  const socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
  if (connect(sock, reinterpret_cast<sockaddr*>(&addr), len) == 0) return sock;
  if (errno == ECONNREFUSED || errno == ENOENT) fail(exitNoAgent, o, "no agent listening");
  if (errno == EAGAIN || errno == EINPROGRESS) timedOut(o);
  fail(exitIo, o, std::string("connect: ") + strerror(errno));
}

void sendCommand(int sock, const Options& o) {
  const ssize_t n = send(sock, o.command.data(), o.command.size(), MSG_NOSIGNAL);
  if (n == static_cast<ssize_t>(o.command.size())) return;
  if (n < 0 && errno == EAGAIN) timedOut(o);
  fail(exitIo, o, std::string("send: ") + (n < 0 ? strerror(errno) : "short write"));
}

// How an agent's error replies begin: its command table's failures, and the
// socket's answer to a word nobody registered.
constexpr const char* errorReplyStarts[] = {"error: ", "Unknown Command \n"};
constexpr size_t errorReplyStartBytes = 17;  // the longer of the two

bool isErrorReply(const std::string& head) {
  for (const char* start : errorReplyStarts) {
    if (head.compare(0, strlen(start), start) == 0) return true;
  }
  return false;
}

// Copies the reply to standard output until the agent closes, and answers
// its first bytes (enough to tell an error reply). An agent that closes with
// part of a long command unread resets the connection; that still ends a
// complete reply.
std::string copyReply(int sock, const Options& o, double deadline) {
  std::string head;
  char buf[65536];
  for (;;) {
    const double left = deadline - monotonicNow();
    if (left <= 0) timedOut(o);
    pollfd p{sock, POLLIN, 0};
    const int ready = poll(&p, 1, static_cast<int>(std::ceil(left * 1000.0)));
    if (ready < 0 && errno == EINTR) continue;
    if (ready == 0) timedOut(o);
    const ssize_t n = recv(sock, buf, sizeof(buf), 0);
    if (n < 0 && errno == EINTR) continue;
    if (n == 0 || (n < 0 && errno == ECONNRESET)) return head;
    if (n < 0) fail(exitIo, o, std::string("recv: ") + strerror(errno));
    if (head.size() < errorReplyStartBytes) {
      head.append(buf, std::min(static_cast<size_t>(n), errorReplyStartBytes - head.size()));
    }
    if (fwrite(buf, 1, static_cast<size_t>(n), stdout) != static_cast<size_t>(n)) {
      fail(exitIo, o, "cannot write the reply to standard output");
    }
  }
}

}  // namespace

int main(int argc, char** argv) {
  const Options o = parse(argc, argv);
  const double deadline = monotonicNow() + o.timeout;
  const int sock = connectToAgent(o);
  sendCommand(sock, o);
  const std::string head = copyReply(sock, o, deadline);
  close(sock);
  if (fflush(stdout) != 0) return exitIo;
  return isErrorReply(head) ? exitErrorReply : exitOk;
}
