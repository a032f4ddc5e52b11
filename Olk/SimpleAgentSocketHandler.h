// A command table over the agent command socket: commands are plain
// functions registered with a word, a usage line and an argument count.
//
//   auto cmds = simpleAgentSocketHandlerFactory("myagent");
//   cmds->commandIs("add", "add <a> <b>: sums two numbers", 2, 2, [](const Olk::CommandArgs& a) {
//     return std::to_string(a.number(0, 0, 1000) + a.number(1, 0, 1000)) + "\n";
//   });
//
// Arguments arrive split into words at blanks; a wrong count never reaches
// the function and gets "error: usage: <usage line>\n". Every request gets
// exactly one reply, given one way: the function returns it (a dump through
// `dumpText`); a thrown error is logged and answered "error: <what>\n". The
// built-in "help" lists the usage lines by word; unregistered words get
// "Unknown Command \n". Runs on the loop; a function must not block.
//
// Unlike a bare `AgentSocketHandlerSm`, it turns the peer-credential check
// on: only the agent's own uid and root (and uids an agent adds with
// `agentSocketHandlerSm()->allowedUidIs`) may send commands. The handler
// itself keeps the check off because its contract is the established
// protocol, under which any uid may connect and existing tools rely on it;
// this table is our own convenience layer, the usual way new agents add
// commands, and its commands routinely write files or stop the agent, so
// the safe choice is the default and opening it up is the explicit step.
// The check costs one getsockopt per connection and admits the operators who
// run as the agent's user or via sudo.
#pragma once

#include <functional>
#include <limits>
#include <stdexcept>
#include <vector>

#include "Olk/AgentSocketHandler.h"
#include "Olk/DumpContext.h"
#include "Olk/Types.h"

namespace Olk {

class CommandArgs;

class SimpleAgentSocketHandler : public Zum::Entity {
 public:
  using CommandFn = std::function<String(const CommandArgs&)>;
  static constexpr U32 anyArgs = std::numeric_limits<U32>::max();

  const Ptr<AgentSocketHandlerSm>& agentSocketHandlerSm() const { return handler_; }

  // Registers or replaces `word`. `usage` is its one-line description,
  // starting with the word, shown by "help" and sent back on a wrong
  // number of arguments; `maxArgs` may be anyArgs. An empty `fn` or
  // `minArgs` > `maxArgs` throws RangeException and registers nothing.
  void commandIs(const String& word, const String& usage, U32 minArgs, U32 maxArgs, CommandFn fn);
  void commandDel(const String& word);
  bool command(const String& word) const { return commands_.has(word); }
  size_t commandCount() const { return commands_.size(); }
  // The "help" text: one usage line per command, sorted by word.
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

// The arguments of one command, split at blanks; empty words are dropped.
class CommandArgs {
 public:
  explicit CommandArgs(const String& text);

  // The text after the command word's blank, as received.
  const String& text() const { return text_; }
  std::size_t size() const { return words_.size(); }
  bool empty() const { return words_.empty(); }
  const String& operator[](std::size_t i) const { return words_.at(i); }
  const std::vector<String>& words() const { return words_; }
  // Word `i` as a decimal number from `min` to `max`; anything else (signs,
  // blanks, hex, out of range) throws CommandError "argument <i+1>: expected
  // a number from <min> to <max>, not '<word>'".
  U32 number(std::size_t i, U32 min, U32 max) const;

 private:
  String text_;
  std::vector<String> words_;
};

// The error a command function throws for bad input; its text is the reply.
class CommandError : public std::runtime_error {
 public:
  explicit CommandError(const String& what) : std::runtime_error(what) {}
};

// Runs `dump` on a context that collects what it writes, and answers the
// text: how a command replies with a component's dump.
String dumpText(const std::function<void(const Ptr<const DumpContext>&)>& dump, DumpLevel level = dumpNormal);

}  // namespace Olk
