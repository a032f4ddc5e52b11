// The agent command socket: operators and scripts talk to a running agent.
//
// An agent listens on the abstract stream socket "\0s<name>". Each connection
// carries one command: one receive of at most 1027 bytes, split at the first
// blank into the command word and its arguments, handed to the
// `AgentSocketCallback` registered for the word; then the connection closes.
// The reply is what the callback writes to the client descriptor before it
// returns; an unregistered word gets "Unknown Command \n".
//
// Everything runs on the calling thread's activity loop; a client that never
// sends costs one descriptor and nothing else. Three guards bound who may
// connect and how many may linger: an optional peer-credential check (off by
// default), a cap on concurrent clients (default 128) and an idle time-out
// (default 60 s). The defaults never disturb a client that sends its one
// command, even one typed by hand.
//
// What the abstract socket does not protect: it has no file, so no owner and
// no permission bits; its name is listed in /proc/net/unix, and every process
// in the agent's network namespace can connect to it, whatever its uid. With
// the check off, any local user can run every command, including those that
// write files or stop the agent. An agent turns the guard on with
// `peerCredentialCheckIs(true)` (and admits further uids with `allowedUidIs`);
// it then serves only its own effective uid, root and the listed uids, and
// answers others with one line of refusal, logged as AGENT_SOCKET_PEER_REFUSED.
// The check trusts the kernel's record of who connected (SO_PEERCRED, taken
// at connect time), so a connected socket handed on to another process keeps
// the credentials of the one that connected it; and it cannot tell apart
// the processes of an admitted uid. (`SimpleAgentSocketHandler` turns the
// check on by default.)
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <iosfwd>
#include <set>
#include <string_view>
#include <utility>

#include "Olk/Types.h"
#include "platform/ActivityManager.h"
#include "platform/Clock.h"
#include "platform/Collection.h"
#include "platform/Entity.h"
#include "platform/Notifier.h"

namespace Olk {

class DumpContext;

// Root of the library's output state machines: anything that can describe
// itself in a dump and name its most-derived type in traces. It comes first
// because the handler derives from it.
class BaseOutputSm : public Zum::Entity {
 public:
  // Writes this machine's state into `dumpContext` at detail `level`; the
  // base writes nothing. Never blocks: the context decides where text goes.
  virtual void dumpState(const Ptr<const DumpContext>& dumpContext, U32 level) const;
  // Writes the most-derived type's name, e.g. "Olk::MallocTrimmerSm".
  virtual void formatDerivedType(std::ostream& stream) const;

 protected:
  explicit BaseOutputSm(Zum::Name name = {}) : Zum::Entity(std::move(name)) {}
};

// Prints the derived type of `sm` (through formatDerivedType).
std::ostream& operator<<(std::ostream& stream, const BaseOutputSm& sm);

// Calls (owner->*handle)() whenever the watched descriptor is readable; the
// owner holds it as a member, so the owner outlives it. Defined ahead of the
// handler and the client, whose members these reactors are.
template <class Owner, void (Owner::*handle)()>
class ReadableReactor : public Zum::FileDescriptor::Notifiee {
 public:
  explicit ReadableReactor(Owner* owner) : owner_(owner) {}
  void onReadable() override { (owner_->*handle)(); }

 private:
  Owner* const owner_;
};

class AgentSocketCallback;  // a command word's handler, defined after the handler
class ClientSm;             // one connection, likewise

// Listens on "\0s<name>" and serves one command per connection.
class AgentSocketHandlerSm : public BaseOutputSm, public Zum::Notifier {
 public:
  class Notifiee : public Zum::BaseNotifiee<AgentSocketHandlerSm> {
   public:
    virtual void onInitialized() {}
    virtual void onFd(const String& /*name*/) {}
    virtual void onClient(const String& /*name*/) {}
    virtual void onAgentSocketCallback(const String& /*commandType*/) {}
  };

  static constexpr U32 maxCommandBytes = 1027;
  // Every client socket's send buffer is forced to this size before its
  // command runs (SO_SNDBUFFORCE), so that a reply this large never blocks
  // the loop. Forcing needs CAP_NET_ADMIN; when it is refused the command is
  // not served (see sndBufFallback).
  static constexpr int sendBufferBytes = 1048576;
  static constexpr U32 maxClientsDefault = 128;
  static constexpr Seconds idleTimeoutDefault = 60.0;

  const String& socketName() const { return socketName_; }
  // The listening descriptor; null until handleInitialized has run.
  const Ptr<Zum::FileDescriptor>& agentsockFd() const { return agentsockFd_; }
  bool initialized() const { return initialized_; }

  // The listening descriptor's entity name.
  static constexpr const char* serverFdName = "AgentSocketHandler server";

  // Client descriptors by their entity's name ("clientFd:%d").
  Ptr<Zum::FileDescriptor> fd(const String& name) const { return fd_.get(name); }
  size_t fdCount() const { return fd_.size(); }
  // Adds `fd` under its entity's name; a null `fd` is refused with a range
  // error.
  void fdIs(const Ptr<Zum::FileDescriptor>& fd);
  void fdDel(const String& name);
  void fdDelAll();

  Ptr<ClientSm> client(const String& name) const { return client_.get(name); }
  size_t clientCount() const { return client_.size(); }
  // The ClientSm for `clientFd`, keyed by the descriptor entity's name and
  // created on first call. Asking again with
  // another descriptor entity or handler under the same name is refused, as
  // is a null descriptor or handler.
  Ptr<ClientSm> clientIs(const Ptr<Zum::FileDescriptor>& clientFd, AgentSocketHandlerSm* handler);
  void clientDel(const String& name);
  void clientDelAll();

  Ptr<AgentSocketCallback> agentSocketCallback(const String& commandType) const {
    return agentSocketCallback_.get(commandType);
  }
  const Zum::OrderedMap<String, Ptr<AgentSocketCallback>>& agentSocketCallbacks() const {
    return agentSocketCallback_;
  }
  // Registers `callback` under its commandType, replacing any other one;
  // a null callback is refused with a range error.
  void agentSocketCallbackIs(const Ptr<AgentSocketCallback>& callback);
  void agentSocketCallbackDel(const String& commandType);
  void agentSocketCallbackDelAll();

  // What happens when forcing a client's send buffer fails. Off (the
  // default): the command is not run; the failure is printed, traced and
  // logged as AGENT_SOCKET_COMMAND_ERROR and the connection closed
  // unanswered. On, for agents that run without CAP_NET_ADMIN: when forcing
  // is refused (EPERM) the same size is asked for the ordinary way
  // (SO_SNDBUF, capped by net.core.wmem_max) and the command is served; a
  // reply longer than the granted buffer is then cut. Other failures stay
  // command errors either way.
  bool sndBufFallback() const { return sndBufFallback_; }
  void sndBufFallbackIs(bool on) { sndBufFallback_ = on; }

  // Admission guards (see the top of this file). When peerCredentialCheck
  // is on, only the agent's own effective uid, root and the uids in
  // allowedUid may send commands; others get one line of refusal and their
  // command is never read. Off by default.
  bool peerCredentialCheck() const { return peerCredentialCheck_; }
  void peerCredentialCheckIs(bool on) { peerCredentialCheck_ = on; }
  bool allowedUid(uid_t uid) const { return allowedUid_.count(uid) != 0; }
  void allowedUidIs(uid_t uid) { allowedUid_.insert(uid); }
  void allowedUidDel(uid_t uid) { allowedUid_.erase(uid); }
  void allowedUidDelAll() { allowedUid_.clear(); }
  // Connections beyond this many open clients are refused with one line;
  // those already admitted are not touched.
  U32 maxClients() const { return maxClients_; }
  void maxClientsIs(U32 n) { maxClients_ = n; }
  // A client that sends nothing for this long after connecting is closed and
  // logged; endOfTime disables. Applies to clients accepted afterwards.
  Seconds idleTimeout() const { return idleTimeout_; }
  void idleTimeoutIs(Seconds t) { idleTimeout_ = t; }
  // The clock the idle time-out runs on; by default the one a component given
  // no clock uses (Zum::clockOrLoop). A null clock throws RangeException.
  const Ptr<Zum::Clock>& clock() const { return clock_; }
  void clockIs(const Ptr<Zum::Clock>& clock);

  // Accepts one pending connection (on readability of the listening socket)
  // and serves its command at once if it has already arrived; otherwise the
  // client waits for its descriptor's readability.
  void handleClientConnection();
  // Closes the client's descriptor at once and forgets the client.
  void doCloseClientConnection(const Ptr<ClientSm>& client);

  // Socket name, the listening descriptor, guards, client descriptors and
  // clients by name, and (verbose) the registered command words.
  void dumpState(const Ptr<const DumpContext>& dumpContext, U32 level) const override;

 protected:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit AgentSocketHandlerSm(String socketName);

  // Creates, binds and listens; a failure here is fatal.
  void handleInitialized() override;
  void handleDel() override;

 private:
  using ZumAgentsockFd = ReadableReactor<AgentSocketHandlerSm, &AgentSocketHandlerSm::handleClientConnection>;

  bool admitted(int fd);
  void refuse(int fd, std::string_view reply);

  const String socketName_;
  Ptr<Zum::FileDescriptor> agentsockFd_;
  ZumAgentsockFd zumAgentsockFd_{this};
  bool initialized_ = false;
  Zum::HashMap<String, Ptr<Zum::FileDescriptor>> fd_;
  Zum::HashMap<String, Ptr<ClientSm>> client_;  // same keys as fd_ once accepted
  Zum::OrderedMap<String, Ptr<AgentSocketCallback>> agentSocketCallback_;
  bool sndBufFallback_ = false;
  bool peerCredentialCheck_ = false;
  std::set<uid_t> allowedUid_;
  U32 maxClients_ = maxClientsDefault;
  Seconds idleTimeout_ = idleTimeoutDefault;
  Ptr<Zum::Clock> clock_;
};

Ptr<AgentSocketHandlerSm> agentSocketHandlerSmFactory(const String& socketName);

// Serves one command word. Agents derive from it, override handleCommand and
// register the callback with AgentSocketHandlerSm::agentSocketCallbackIs.
class AgentSocketCallback : public Zum::Entity {
 public:
  // The command word served; the callback's key in the handler.
  const String& commandType() const { return commandType_; }

  // Called with the client's descriptor (non-blocking, SIGPIPE ignored) and
  // the text after the first blank (empty when there was none). Whatever is
  // written to `clientFd` before returning is the reply; the connection is
  // closed afterwards. A std::exception thrown here ends the command only:
  // it is logged as AGENT_SOCKET_COMMAND_ERROR and the connection is closed
  // as usual. The base only traces.
  virtual void handleCommand(U32 clientFd, const String& commandArgs);

 protected:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  AgentSocketCallback(Zum::Name name, String commandType)
      : Zum::Entity(std::move(name)), commandType_(std::move(commandType)) {}

 private:
  const String commandType_;
};

Ptr<AgentSocketCallback> agentSocketCallbackFactory(const Zum::Name& name,
                                                    const String& commandType);

// One accepted connection, from accept until its command has been served or
// it is closed. Owned by its handler; holds the handler by raw pointer, so it
// must not be used after the handler is gone.
class ClientSm : public Zum::Entity {
 public:
  const Ptr<Zum::FileDescriptor>& clientFd() const { return clientFd_; }
  AgentSocketHandlerSm* agentSocketHandlerSm() const { return agentSocketHandlerSm_; }

  // Serves the command waiting on the descriptor (one receive), or closes
  // the connection when the client has gone; waits on EAGAIN.
  void handleDataFromClient();

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  ClientSm(const Zum::Name& name, Ptr<Zum::FileDescriptor> clientFd, AgentSocketHandlerSm* handler);

  using ZumClientFd = ReadableReactor<ClientSm, &ClientSm::handleDataFromClient>;
  // Closes the connection when the client has said nothing for too long.
  class IdleTimer : public Zum::Clock::Notifiee {
   public:
    explicit IdleTimer(ClientSm* owner) : owner_(owner) {}
    void onTime() override;

   private:
    ClientSm* owner_;
  };

  bool prepareReply();
  void dispatch(const String& command, const String& args);
  // Runs the callback for `command`, or answers an unknown one.
  void serve(const String& command, const String& args);

  const Ptr<Zum::FileDescriptor> clientFd_;
  AgentSocketHandlerSm* const agentSocketHandlerSm_;
  ZumClientFd zumClientFd_{this};
  IdleTimer idleTimer_{this};
};

// "clientFd:<n>", the name of an accepted client descriptor.
String clientFdName(int fd);

// Writes all of `text` to a client descriptor without blocking. Returns
// false when the peer has gone or the send buffer is full (the rest is lost).
bool writeToClient(int fd, std::string_view text);

// A diagnostic client: sends `command` to the agent listening as
// `socketName` and closes without reading a reply. `timeout` bounds the
// socket's send and receive. Any failure is fatal.
void runCommand(const String& socketName, const String& command, Seconds timeout);

}  // namespace Olk
