// Design note: the command socket.
//
// One command per connection keeps the server trivial and robust: there is
// no framing, no per-client buffer and no partial-command state. A client
// sends its text in one send; the server takes what one receive returns (at
// most 1027 bytes; a longer command is cut and the rest never read). The
// reply is written synchronously by the callback into a send buffer forced
// to 1 MiB, so the loop never waits on a slow reader; a reply larger than
// the buffer is cut rather than blocking the agent (see sndBufFallback for
// agents that may not force the size).
//
// Per command the agent makes only the system calls the protocol needs: the
// accepted socket is made non-blocking and close-on-exec by accept4 itself,
// and a command that has already arrived when the connection is accepted
// (clients send right after connecting, so under load it usually has) is
// read and served at once rather than after another round of the loop; when
// it has not, that read finds nothing and the client waits for readability.
//
// SIGPIPE is process-wide state; it is ignored only for the span of one
// command and the previous action is restored afterwards, so an agent that
// relies on its own SIGPIPE handler keeps it.
//
// Descriptor exhaustion: every accepted connection costs one descriptor until
// it sends its command. The client cap refuses connections beyond it at
// accept time (the refused one is accepted, told, and closed at once, so the
// backlog never fills with dead connections), and the idle time-out reclaims
// connections that never speak.
#include "Olk/AgentSocketHandler.h"

#include <cxxabi.h>
#include <errno.h>
#include <signal.h>
#include <stddef.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <ostream>
#include <typeinfo>

#include "Olk/DumpContext.h"
#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/Log.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("AgentSocketHandler");

constexpr const char* handlerClass = "Olk::AgentSocketHandlerSm";
constexpr const char* noActionRequired = "No action is required.";
constexpr std::string_view unknownCommandReply = "Unknown Command \n";

const Zum::LogMessage commandError{"AGENT_SOCKET_COMMAND_ERROR", Zum::LogSeverity::warning,
                                   "Error (%s) on command execution",
                                   "Unexpected error caught during the execution of the command.",
                                   noActionRequired, 1.0};
const Zum::LogMessage invalidDescriptor{"AGENT_SOCKET_INVALID_DESCRIPTOR", Zum::LogSeverity::warning,
                                        "Invalid socket request call", "Bad file descriptor received.",
                                        noActionRequired, 1.0};
const Zum::LogMessage peerRefused{
    "AGENT_SOCKET_PEER_REFUSED", Zum::LogSeverity::warning,
    "Refused command connection from uid %u pid %d",
    "A process whose user may not send commands to this agent connected to its command socket.",
    "Add the uid to the agent's allowed uids if it should be admitted.", 1.0};
const Zum::LogMessage clientLimit{
    "AGENT_SOCKET_CLIENT_LIMIT", Zum::LogSeverity::warning,
    "Refused command connection: %u clients already connected",
    "More clients were connected to the command socket than the agent admits at once.",
    "Check for clients that connect and never send a command.", 1.0};
const Zum::LogMessage idleClient{
    "AGENT_SOCKET_IDLE_CLIENT", Zum::LogSeverity::warning,
    "Closed command connection %s: no command within %.3f seconds",
    "A client connected to the command socket and sent nothing within the idle time-out.",
    noActionRequired, 1.0};

// Fills `addr` with the abstract address "\0s<name>" and returns its length,
// which stops before the terminator: the NUL is not part of the name.
socklen_t abstractAddress(const String& socketName, sockaddr_un& addr) {
  memset(&addr, 0, sizeof(addr));
  addr.sun_family = AF_UNIX;
  snprintf(addr.sun_path + 1, sizeof(addr.sun_path) - 1, "s%s", socketName.c_str());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + strlen(addr.sun_path + 1));
}

// Forces the send buffer; with `fallback`, a refusal for want of privilege
// asks for the same size the ordinary way. False with errno set on failure.
bool forceSendBuffer(int fd, bool fallback) {
  int size = AgentSocketHandlerSm::sendBufferBytes;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &size, sizeof(size)) == 0) return true;
  if (!fallback || errno != EPERM) return false;
  ZUM_TRACE(tr, 7) << "SO_SNDBUFFORCE not permitted, asking SO_SNDBUF instead";
  return setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)) == 0;
}

}  // namespace

// --- BaseOutputSm -------------------------------------------------------------

void BaseOutputSm::dumpState(const Ptr<const DumpContext>&, U32) const {}

void BaseOutputSm::formatDerivedType(std::ostream& stream) const {
  const char* mangled = typeid(*this).name();
  int status = 0;
  std::unique_ptr<char, decltype(&std::free)> demangled(
      abi::__cxa_demangle(mangled, nullptr, nullptr, &status), &std::free);
  stream << (status == 0 && demangled ? demangled.get() : mangled);
}

std::ostream& operator<<(std::ostream& stream, const BaseOutputSm& sm) {
  sm.formatDerivedType(stream);
  return stream;
}

// --- AgentSocketCallback ------------------------------------------------------

void AgentSocketCallback::handleCommand(U32, const String&) {
  ZUM_TRACE(tr, 5) << name() << " handleCommand";
}

Ptr<AgentSocketCallback> agentSocketCallbackFactory(const Zum::Name& name,
                                                    const String& commandType) {
  return Zum::create<AgentSocketCallback>(name, commandType);
}

// --- ClientSm -----------------------------------------------------------------

ClientSm::ClientSm(const Zum::Name& name, Ptr<Zum::FileDescriptor> clientFd,
                   AgentSocketHandlerSm* handler)
    : Zum::Entity(name), clientFd_(std::move(clientFd)), agentSocketHandlerSm_(handler) {
  zumClientFd_.notifierIs(clientFd_);
  if (handler->idleTimeout() != Zum::endOfTime) {
    idleTimer_.notifierIs(handler->clock());
    idleTimer_.timeMinIs(handler->clock()->now() + handler->idleTimeout());
  }
}

void ClientSm::IdleTimer::onTime() {
  AgentSocketHandlerSm* handler = owner_->agentSocketHandlerSm();
  ZUM_TRACE(tr, 3) << "Idle client closed: " << owner_->name();
  idleClient.log(owner_->name().c_str(), handler->idleTimeout());
  handler->doCloseClientConnection(owner_);
}

void ClientSm::handleDataFromClient() {
  // Closing the connection drops the handler's reference to this client, and
  // a callback may drop the agent's last reference to the handler.
  Zum::DestructorGuard guard(this, agentSocketHandlerSm_);
  AgentSocketHandlerSm* const handler = agentSocketHandlerSm_;
  const int fd = clientFd_->fd();
  char buf[AgentSocketHandlerSm::maxCommandBytes + 1];
  errno = 0;
  ssize_t n = recv(fd, buf, AgentSocketHandlerSm::maxCommandBytes, 0);
  if (n < 0 && errno == EAGAIN) return;
  if (n < 0) {
    perror("Receiving from socket");
    ZUM_TRACE(tr, 3) << "recv error from client fd: " << fd << " errno: " << errno;
  }
  if (n <= 0) {
    handler->doCloseClientConnection(this);
    return;
  }
  idleTimer_.timeMinIs(Zum::endOfTime);
  buf[n] = '\0';
  const String text(buf);
  const size_t blank = text.find(' ');
  const String command = text.substr(0, blank);
  const String args = blank == String::npos ? String() : text.substr(blank + 1);
  ZUM_TRACE(tr, 5) << "Received command: " << command << " arg: " << args;
  if (!prepareReply()) return;
  dispatch(command, args);
}

bool ClientSm::prepareReply() {
  const int fd = clientFd_->fd();
  if (!forceSendBuffer(fd, agentSocketHandlerSm_->sndBufFallback())) {
    const int err = errno;
    perror("setsockopt on SO_SNDBFFORCE");
    ZUM_TRACE(tr, 3) << "setsockopt failed with err= " << err;
    commandError.log(strerror(err));
    agentSocketHandlerSm_->doCloseClientConnection(this);
    return false;
  }
  return true;
}

void ClientSm::dispatch(const String& command, const String& args) {
  struct sigaction saved {};
  if (sigaction(SIGPIPE, nullptr, &saved) != 0) {
    const int err = errno;
    perror("handling SIGPIPE signal");
    ZUM_TRACE(tr, 3) << "Error setting signal action: " << strerror(err);
    commandError.log(strerror(err));
    agentSocketHandlerSm_->doCloseClientConnection(this);
    return;
  }
  struct sigaction ignore {};
  ignore.sa_handler = SIG_IGN;
  sigemptyset(&ignore.sa_mask);
  sigaction(SIGPIPE, &ignore, nullptr);

  serve(command, args);
  agentSocketHandlerSm_->doCloseClientConnection(this);

  if (sigaction(SIGPIPE, &saved, nullptr) != 0) {
    const int err = errno;
    perror("restoring SIGPIPE signal");
    commandError.log(strerror(err));
    ZUM_TRACE(tr, 3) << "Error in restoring current signal action, err= " << err;
  }
}

void ClientSm::serve(const String& command, const String& args) {
  const int fd = clientFd_->fd();
  Ptr<AgentSocketCallback> callback = agentSocketHandlerSm_->agentSocketCallback(command);
  if (!callback) {
    writeToClient(fd, unknownCommandReply);
    return;
  }
  try {
    callback->handleCommand(static_cast<U32>(fd), args);
  } catch (const std::exception& e) {
    ZUM_TRACE(tr, 3) << "Command " << command << " failed: " << e.what();
    commandError.log(e.what());
  }
}

// --- AgentSocketHandlerSm -----------------------------------------------------

AgentSocketHandlerSm::AgentSocketHandlerSm(String socketName)
    : BaseOutputSm("AgentSocketHandlerSm"),
      socketName_(std::move(socketName)),
      clock_(Zum::clockOrLoop(nullptr)) {}

void AgentSocketHandlerSm::handleInitialized() {
  ZUM_TRACE(tr, 5) << "handleInitialized";
  const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock < 0) {
    perror("Creating unix socket");
    ZUM_ASSERT(0 && "socket failed");
  }
  int one = 1;
  if (setsockopt(sock, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one)) != 0) {
    perror("setting SO_REUSEADDR");
    ZUM_ASSERT(0 && "socket reuse failed");
  }
  sockaddr_un addr;
  const socklen_t len = abstractAddress(socketName_, addr);
  ZUM_TRACE(tr, 5) << "Socket Name: " << (addr.sun_path + 1) << " fd: " << sock;
  if (bind(sock, reinterpret_cast<sockaddr*>(&addr), len) != 0) {
    perror("Binding to socket");
    ZUM_ASSERT(0 && "socket bind failure");
  }
  if (listen(sock, 5) != 0) {
    perror("Listening on socket");
    ZUM_ASSERT(0 && "socket listen failure");
  }
  agentsockFd_ = Zum::activityManager()->fileDescriptorNew(sock, serverFdName);
  agentsockFd_->nonBlockingIs(true);
  zumAgentsockFd_.notifierIs(agentsockFd_);
  initialized_ = true;
  notify(&Notifiee::onInitialized);
  ZUM_TRACE(tr, 5) << "Socket Init Completed";
}

void AgentSocketHandlerSm::handleDel() {
  ZUM_TRACE(tr, 5) << "handleDeletion";
  clientDelAll();
  fdDelAll();
  if (!agentsockFd_ || agentsockFd_->fd() < 0) {
    ZUM_TRACE(tr, 3) << "Warning! Can't close invalid file descriptor";
  } else {
    zumAgentsockFd_.notifierIs(nullptr);
    close(agentsockFd_->release());
  }
  ZUM_TRACE(tr, 5) << "Socket deleted";
}

void AgentSocketHandlerSm::handleClientConnection() {
  ZUM_TRACE(tr, 7) << "handleClientConnection";
  if (!agentsockFd_ || agentsockFd_->fd() < 0) {
    ZUM_TRACE(tr, 3) << "handleClientConnection" << " Invalid file descriptor";
    invalidDescriptor.log();
    return;
  }
  errno = 0;
  char addrBuf[110];
  socklen_t addrLen = sizeof(addrBuf);
  const int fd = accept4(agentsockFd_->fd(), reinterpret_cast<sockaddr*>(addrBuf), &addrLen,
                         SOCK_CLOEXEC | SOCK_NONBLOCK);
  if (fd < 0) {
    perror("Accepting connection on socket");
    ZUM_TRACE(tr, 3) << "Unable to accept connection from client, err= " << errno;
    return;
  }
  if (!admitted(fd)) return;
  const String name = clientFdName(fd);
  Ptr<Zum::FileDescriptor> clientFd = Zum::activityManager()->fileDescriptorNew(fd, name);
  fdIs(clientFd);
  ZUM_TRACE(tr, 7) << "Accepted client from: " << name;
  clientIs(clientFd, this)->handleDataFromClient();
}

bool AgentSocketHandlerSm::admitted(int fd) {
  if (client_.size() >= maxClients_) {
    ZUM_TRACE(tr, 3) << "Client limit reached, refusing " << clientFdName(fd);
    clientLimit.log(static_cast<unsigned>(client_.size()));
    refuse(fd, "Too many clients connected, try again later\n");
    return false;
  }
  if (!peerCredentialCheck_) return true;
  ucred cred{};
  socklen_t len = sizeof(cred);
  if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
    ZUM_TRACE(tr, 3) << "SO_PEERCRED failed, refusing " << clientFdName(fd) << " errno: " << errno;
    refuse(fd, "Permission denied: peer credentials unavailable\n");
    return false;
  }
  if (cred.uid == 0 || cred.uid == geteuid() || allowedUid_.count(cred.uid)) return true;
  ZUM_TRACE(tr, 3) << "Refused uid " << cred.uid << " pid " << cred.pid;
  peerRefused.log(static_cast<unsigned>(cred.uid), static_cast<int>(cred.pid));
  refuse(fd, Zum::format("Permission denied: uid %u may not send commands to this agent\n",
                         static_cast<unsigned>(cred.uid)));
  return false;
}

void AgentSocketHandlerSm::refuse(int fd, std::string_view reply) {
  send(fd, reply.data(), reply.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  close(fd);
}

void AgentSocketHandlerSm::doCloseClientConnection(const Ptr<ClientSm>& client) {
  const String name = client->name();
  ZUM_TRACE(tr, 7) << "Closing: " << name;
  const Ptr<Zum::FileDescriptor>& clientFd = client->clientFd();
  if (clientFd->fd() >= 0) close(clientFd->release());
  fdDel(name);
  clientDel(name);
}

void AgentSocketHandlerSm::dumpState(const Ptr<const DumpContext>& dumpContext, U32 level) const {
  objDumpPrintf(dumpContext, "AgentSocketHandlerSm socket: s%s initialized: %d\n", socketName_.c_str(),
                initialized_);
  if (agentsockFd_) {
    objDumpPrintf(dumpContext, "  agentsockFd: %s fd: %d\n", agentsockFd_->name().c_str(),
                  agentsockFd_->fd());
  }
  objDumpPrintf(dumpContext,
                "  peerCredentialCheck: %d sndBufFallback: %d maxClients: %u idleTimeout: %g clients: %u "
                "commands: %u\n",
                peerCredentialCheck_, sndBufFallback_, maxClients_, idleTimeout_,
                static_cast<unsigned>(client_.size()), static_cast<unsigned>(agentSocketCallback_.size()));
  for (const auto& [name, fd] : fd_) objDumpPrintf(dumpContext, "  fd: %s\n", fd->name().c_str());
  for (const auto& [name, client] : client_) objDumpPrintf(dumpContext, "  client: %s\n", name.c_str());
  if (level < dumpVerbose) return;
  for (const auto& [word, callback] : agentSocketCallback_) {
    objDumpPrintf(dumpContext, "  command: %s (%s)\n", word.c_str(), callback->name().c_str());
  }
}

void AgentSocketHandlerSm::fdIs(const Ptr<Zum::FileDescriptor>& fd) {
  Zum::requireNonNull(fd, handlerClass, "fd");
  const String& name = fd->name();
  entryIs(fd_, name, fd, &Notifiee::onFd);
}

void AgentSocketHandlerSm::fdDel(const String& name) {
  entryDel(fd_, name, &Notifiee::onFd);
}

void AgentSocketHandlerSm::fdDelAll() {
  entryDelAll(fd_, &Notifiee::onFd);
}

Ptr<ClientSm> AgentSocketHandlerSm::clientIs(const Ptr<Zum::FileDescriptor>& clientFd,
                                             AgentSocketHandlerSm* handler) {
  Zum::requireNonNull(clientFd, handlerClass, "client");
  Zum::requireNonNull(handler, handlerClass, "client");
  const String& name = clientFd->name();
  if (Ptr<ClientSm> existing = client_.get(name)) {
    if (existing->clientFd() != clientFd) {
      throw Zum::RangeException(Zum::format(
          "Reinstantiating the pointer interface where constructor parameter attribute _clientFd "
          "has a different value of %p than the current value of %p",
          static_cast<void*>(clientFd.ptr()), static_cast<void*>(existing->clientFd().ptr())));
    }
    if (existing->agentSocketHandlerSm() != handler) {
      throw Zum::RangeException(Zum::format(
          "Reinstantiating the pointer interface where constructor parameter attribute "
          "_agentSocketHandlerSm has a different value of %p than the current value of %p",
          static_cast<void*>(handler), static_cast<void*>(existing->agentSocketHandlerSm())));
    }
    return existing;
  }
  Ptr<ClientSm> client = Zum::create<ClientSm>(name, clientFd, handler);
  entryIs(client_, name, client, &Notifiee::onClient);
  return client;
}

void AgentSocketHandlerSm::clientDel(const String& name) {
  entryDel(client_, name, &Notifiee::onClient);
}

void AgentSocketHandlerSm::clientDelAll() {
  entryDelAll(client_, &Notifiee::onClient);
}

void AgentSocketHandlerSm::agentSocketCallbackIs(const Ptr<AgentSocketCallback>& callback) {
  Zum::requireNonNull(callback, handlerClass, "agentSocketCallback");
  const String& key = callback->commandType();
  entryIs(agentSocketCallback_, key, callback, &Notifiee::onAgentSocketCallback);
}

void AgentSocketHandlerSm::agentSocketCallbackDel(const String& commandType) {
  entryDel(agentSocketCallback_, commandType, &Notifiee::onAgentSocketCallback);
}

void AgentSocketHandlerSm::agentSocketCallbackDelAll() {
  entryDelAll(agentSocketCallback_, &Notifiee::onAgentSocketCallback);
}

void AgentSocketHandlerSm::clockIs(const Ptr<Zum::Clock>& clock) {
  Zum::requireNonNull(clock, handlerClass, "clock");
  clock_ = clock;
}

Ptr<AgentSocketHandlerSm> agentSocketHandlerSmFactory(const String& socketName) {
  return Zum::create<AgentSocketHandlerSm>(socketName);
}

// --- helpers ------------------------------------------------------------------

String clientFdName(int fd) {
  char name[64];
  snprintf(name, sizeof(name), "clientFd:%d", fd);
  return name;
}

bool writeToClient(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t n = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    text.remove_prefix(static_cast<size_t>(n));
  }
  return true;
}

namespace {

[[noreturn]] void runCommandFailed(const char* what) {
  fprintf(stderr, "Failed(%d) %s\n", 0, what);
  Zum::assertionFailed("!\"0\"", __FILE__, __LINE__, __func__);
}

}  // namespace

void runCommand(const String& socketName, const String& command, Seconds timeout) {
  const int sock = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (sock < 0) runCommandFailed("socket failed");
  timeval tv{};
  tv.tv_sec = static_cast<time_t>(timeout);
  tv.tv_usec = static_cast<suseconds_t>((timeout - std::floor(timeout)) * 1e6);
  if (setsockopt(sock, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv)) != 0 ||
      setsockopt(sock, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) != 0) {
    runCommandFailed("setsockopt failed");
  }
  sockaddr_un addr;
  const socklen_t len = abstractAddress(socketName, addr);
  printf("Socket name: %s\n", socketName.c_str());
  if (connect(sock, reinterpret_cast<sockaddr*>(&addr), len) != 0) runCommandFailed("connect failed");
  const ssize_t sent = send(sock, command.data(), command.size(), MSG_NOSIGNAL);
  if (sent < 0) runCommandFailed("send failed");
  printf("Sent %zd bytes: %s\n", sent, command.c_str());
  close(sock);
}

}  // namespace Olk
