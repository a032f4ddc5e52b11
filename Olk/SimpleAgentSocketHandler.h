// A command table over the agent command socket.
//
// `SimpleAgentSocketHandler` owns an `AgentSocketHandlerSm` and lets an agent
// register commands as plain functions with a usage line, instead of
// deriving an `AgentSocketCallback` per command:
//
//   auto cmds = simpleAgentSocketHandlerFactory("myagent");
//   cmds->commandIs("ping", "ping: answers pong",
//                   [](const Olk::CommandRequest&) { return "pong\n"; });
//
// Every request gets exactly one reply: the function's returned text (it may
// also write straight to `request.clientFd`, as a dump does). A function that
// throws has its error text sent back as "error: <what>\n" and logged; it
// never reaches the loop. "help" is built in and lists every command with its
// usage, in command order; unregistered words get "Unknown Command \n".
#pragma once

#include <functional>
#include <stdexcept>

#include "Olk/AgentSocketHandler.h"
#include "Olk/Types.h"

namespace Olk {

struct CommandRequest {
  int clientFd;
  String args;  // the text after the command word's blank, possibly empty
};

// The error a command function throws for bad input; its text is the reply.
class CommandError : public std::runtime_error {
 public:
  explicit CommandError(const String& what) : std::runtime_error(what) {}
};

class SimpleAgentSocketHandler : public Zum::Entity {
 public:
  using CommandFn = std::function<String(const CommandRequest&)>;

  const Ptr<AgentSocketHandlerSm>& agentSocketHandlerSm() const { return handler_; }

  // Registers or replaces `word`. `usage` is its one-line description in
  // "help"; `fn` must not be empty.
  void commandIs(const String& word, const String& usage, CommandFn fn);
  void commandDel(const String& word);
  bool command(const String& word) const { return commands_.has(word); }
  size_t commandCount() const { return commands_.size(); }
  // The "help" text: one "word - usage" line per command, sorted by word.
  String helpText() const;

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  explicit SimpleAgentSocketHandler(const String& socketName);
  // Takes the commands off the socket: their functions may refer to this.
  void handleDel() override;

  class FunctionCallback;

  Ptr<AgentSocketHandlerSm> handler_;
  Zum::OrderedMap<String, String> commands_;  // word -> usage; words registered with handler_
};

Ptr<SimpleAgentSocketHandler> simpleAgentSocketHandlerFactory(const String& socketName);

}  // namespace Olk
