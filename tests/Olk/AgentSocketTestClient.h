// Blocking clients of the agent command socket for tests. They run on their
// own threads while the test thread drives the agent's loop, as an operator's
// client would run in its own process.
#pragma once

#include <errno.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <string>
#include <thread>

#include "platform/ActivityManager.h"

namespace OlkTest {

// Connects to "\0s<name>"; returns the socket or -1. Receives time out after
// five seconds so that a broken server fails a test instead of hanging it.
inline int connectToAgent(const std::string& name) {
  int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  timeval tv{5, 0};
  setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
  sockaddr_un addr{};
  addr.sun_family = AF_UNIX;
  std::string path = "s" + name;
  memcpy(addr.sun_path + 1, path.data(), path.size());
  socklen_t len = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + path.size());
  if (connect(sock, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    close(sock);
    return -1;
  }
  return sock;
}

// Everything readable from `fd` until end of file; a reset after a reply
// counts as the end.
inline std::string readAll(int fd) {
  std::string text;
  char buf[65536];
  for (ssize_t n; (n = read(fd, buf, sizeof(buf))) != 0;) {
    if (n < 0 && errno != EINTR) break;
    if (n > 0) text.append(buf, static_cast<size_t>(n));
  }
  return text;
}

// Sends `command` in one send and returns the whole reply, or "<no agent>".
inline std::string sendCommand(const std::string& name, const std::string& command) {
  int sock = connectToAgent(name);
  if (sock < 0) return "<no agent>";
  send(sock, command.data(), command.size(), MSG_NOSIGNAL);
  std::string reply = readAll(sock);
  close(sock);
  return reply;
}

// Whether this process may force a socket's send buffer (CAP_NET_ADMIN);
// agents that may not need their handler's sndBufFallback to serve at all.
inline bool mayForceSendBuffer() {
  int pair[2];
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair) != 0) return false;
  int size = 65536;
  const bool ok = setsockopt(pair[0], SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)) == 0;
  close(pair[0]);
  close(pair[1]);
  return ok;
}

// A socket name no other test process uses.
inline std::string uniqueSocketName(const char* tag) {
  static int counter = 0;
  return std::string("olktest-") + tag + "-" + std::to_string(getpid()) + "-" +
         std::to_string(++counter);
}

// Runs the loop in short steps until `done` or ten seconds; answers done().
inline bool pumpUntil(const std::function<bool()>& done) {
  auto loop = Zum::activityManager();
  const Zum::Seconds deadline = loop->clock()->now() + 10.0;
  while (!done()) {
    if (loop->clock()->now() > deadline) return false;
    loop->runOnce(0.005);
  }
  return true;
}

// Sends `command` from a forked child running as `uid` (group likewise)
// while this thread drives the agent's loop; returns the reply, or a text
// saying why the child could not send. Needs root to change uid.
inline std::string commandAsUid(const std::string& name, uid_t uid, const std::string& command) {
  int out[2];
  if (pipe(out) != 0) return "<no pipe>";
  const pid_t pid = fork();
  if (pid == 0) {
    close(out[0]);
    const std::string reply = setresgid(uid, uid, uid) == 0 && setresuid(uid, uid, uid) == 0
                                  ? sendCommand(name, command)
                                  : "<cannot become uid " + std::to_string(uid) + ">";
    (void)!write(out[1], reply.data(), reply.size());
    _exit(0);
  }
  close(out[1]);
  int status = 0;
  pumpUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; });
  std::string reply = readAll(out[0]);
  close(out[0]);
  return reply;
}

// Runs `command` against the agent on a client thread while this thread
// drives the loop, and returns the reply.
inline std::string roundTrip(const std::string& name, const std::string& command) {
  std::string reply;
  std::atomic<bool> done{false};
  std::thread client([&] {
    reply = sendCommand(name, command);
    done = true;
  });
  pumpUntil([&] { return done.load(); });
  client.join();
  return reply;
}

}  // namespace OlkTest
