// A private redis-server per fixture, and forked agent processes, for the
// suites and programs that share transaction directories through Redis.
//
// The server listens on a Unix socket in its own temporary directory (and on
// a TCP port of 127.0.0.1 only when asked), keeps its files there, and is
// stopped when the object goes. A blocking hiredis client on the side lets a
// test look at or tamper with what the server holds.
#pragma once

#include <hiredis/hiredis.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace OlkTest {

// A TCP port of 127.0.0.1 that nobody listened on a moment ago.
inline int freeLoopbackPort() {
  int s = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  if (::bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
      ::getsockname(s, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    throw std::runtime_error("cannot bind a loopback port");
  }
  ::close(s);
  return ntohs(a.sin_port);
}

class RedisServer {
 public:
  struct Options {
    bool persistent = false;  // appendonly, so a stop and start keeps the data
    int tcpPort = 0;          // 0: Unix socket only
    std::vector<std::string> extra;  // more configuration, e.g. ACL users
    std::vector<std::string> login;  // an AUTH command for command(), when the default user is off
  };

  RedisServer() : RedisServer(Options{}) {}
  explicit RedisServer(Options o) : options_(std::move(o)) {
    char tmpl[] = "/tmp/olkredis.XXXXXX";
    if (!::mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
  }
  ~RedisServer() {
    stop();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  RedisServer(const RedisServer&) = delete;
  RedisServer& operator=(const RedisServer&) = delete;

  std::string socketPath() const { return dir_ + "/r.sock"; }
  bool running() const { return pid_ > 0; }

  // Starts the server and returns once it answers PING.
  void start() {
    // clang-format off
    std::vector<std::string> args{"redis-server", "--port", std::to_string(options_.tcpPort),
                                  "--unixsocket", socketPath(), "--dir", dir_, "--save", "",
                                  "--appendonly", options_.persistent ? "yes" : "no",
                                  "--appendfsync", "always", "--logfile", dir_ + "/redis.log"};
    // clang-format on
    if (options_.tcpPort) args.insert(args.end(), {"--bind", "127.0.0.1"});
    args.insert(args.end(), options_.extra.begin(), options_.extra.end());
    pid_ = ::fork();
    if (pid_ == 0) {
      // The server must not hold the caller's output open (a pipe would
      // never see its end); it writes to its log file.
      int null = ::open("/dev/null", O_RDWR);
      ::dup2(null, STDOUT_FILENO);
      ::dup2(null, STDERR_FILENO);
      std::vector<char*> argv;
      for (auto& a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      ::execvp("redis-server", argv.data());
      ::_exit(127);
    }
    for (int i = 0; i < 2000; ++i) {
      if (ping()) return;
      int status = 0;
      if (::waitpid(pid_, &status, WNOHANG) == pid_) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    throw std::runtime_error("redis-server did not start; see " + dir_ + "/redis.log");
  }

  // SIGTERM: the server saves its append-only file on the way out.
  void stop() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
    ::unlink(socketPath().c_str());
  }

  // Freezes and thaws the server (SIGSTOP, SIGCONT): it keeps its
  // connections but answers nothing meanwhile.
  void pause() { ::kill(pid_, SIGSTOP); }
  void resume() { ::kill(pid_, SIGCONT); }

  // Forgets everything the server kept on disk (while stopped): the next
  // start is an empty server, as after a loss of its persistence.
  void wipe() {
    for (const auto& e : std::filesystem::directory_iterator(dir_)) std::filesystem::remove_all(e.path());
  }

  // Runs one command on a fresh blocking connection (database `db`) and
  // returns the reply's text: a string, a status, an error, an integer in
  // decimal, or the elements of an array joined by blanks.
  std::string command(const std::vector<std::string>& argv, int db = 0) const {
    redisContext* c = redisConnectUnix(socketPath().c_str());
    if (!c || c->err) {
      if (c) redisFree(c);
      throw std::runtime_error("cannot connect to the test redis-server");
    }
    if (!options_.login.empty()) run(c, options_.login);
    if (db) run(c, {"SELECT", std::to_string(db)});
    std::string out = run(c, argv);
    redisFree(c);
    return out;
  }

 private:
  static std::string text(const redisReply* r) {
    if (r->type == REDIS_REPLY_INTEGER) return std::to_string(r->integer);
    if (r->type == REDIS_REPLY_ARRAY) {
      std::string out;
      for (size_t i = 0; i < r->elements; ++i) out += (i ? " " : "") + text(r->element[i]);
      return out;
    }
    return r->str ? std::string(r->str, r->len) : std::string();
  }

  static std::string run(redisContext* c, const std::vector<std::string>& argv) {
    std::vector<const char*> args;
    std::vector<size_t> lens;
    for (const auto& a : argv) {
      args.push_back(a.data());
      lens.push_back(a.size());
    }
    auto* r = static_cast<redisReply*>(redisCommandArgv(c, int(args.size()), args.data(), lens.data()));
    std::string out = r ? text(r) : "(no reply)";
    if (r) freeReplyObject(r);
    return out;
  }

  // Any answer will do, a refusal to an unauthenticated client included.
  bool ping() const {
    redisContext* c = redisConnectUnix(socketPath().c_str());
    const bool ok = c && !c->err && run(c, {"PING"}) != "(no reply)";
    if (c) redisFree(c);
    return ok;
  }

  Options options_;
  std::string dir_;
  pid_t pid_ = -1;
};

// A forked process running `body` (which should run its own loop and not
// return until killed); SIGKILLed and reaped when the object goes.
class ChildProcess {
 public:
  explicit ChildProcess(const std::function<void()>& body) {
    pid_ = ::fork();
    if (pid_ == 0) {
      // Nothing may unwind into the parent's code that was forked with it.
      try {
        body();
      } catch (const std::exception& e) {
        ::fprintf(stderr, "child %d: %s\n", ::getpid(), e.what());
        ::_exit(1);
      }
      ::_exit(0);
    }
  }
  ChildProcess(ChildProcess&& o) noexcept : pid_(o.pid_) { o.pid_ = -1; }
  ChildProcess& operator=(ChildProcess&& o) noexcept {
    std::swap(pid_, o.pid_);
    return *this;
  }
  ~ChildProcess() { kill(); }

  void kill() {
    if (pid_ <= 0) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
};

}  // namespace OlkTest
