#include "Olk/SimpleAgentSocketHandler.h"

#include <algorithm>
#include <exception>
#include <sstream>

#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/Log.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("AgentSocketHandler");

const Zum::LogMessage commandFailed{
    "AGENT_SOCKET_COMMAND_FAILED", Zum::LogSeverity::warning, "Command %s failed: %s",
    "An operator command could not be carried out; the error was sent to the client.",
    "Check the command and its arguments.", 1.0};

}  // namespace

CommandArgs::CommandArgs(const String& text) : text_(text) {
  std::istringstream in(text);
  for (String word; in >> word;) words_.push_back(word);
}

U32 CommandArgs::number(std::size_t i, U32 min, U32 max) const {
  const String& word = (*this)[i];
  const bool digits = !word.empty() && word.size() <= 10 &&
                      std::all_of(word.begin(), word.end(), [](char c) { return c >= '0' && c <= '9'; });
  const U64 value = digits ? std::stoull(word) : 0;
  if (!digits || value < min || value > max) {
    throw CommandError(Zum::format("argument %zu: expected a number from %u to %u, not '%s'", i + 1, min, max,
                                   word.c_str()));
  }
  return static_cast<U32>(value);
}

namespace {

// Hands what a dump writes to the string it collects in.
class StringSink : public DumpWriteCallbackBase {
 public:
  explicit StringSink(String* out) : out_(out) {}
  int write(const void* buffer, U32 length) override {
    out_->append(static_cast<const char*>(buffer), length);
    return static_cast<int>(length);
  }

 private:
  String* out_;
};

}  // namespace

String dumpText(const std::function<void(const Ptr<const DumpContext>&)>& dump, DumpLevel level) {
  String text;
  StringSink sink(&text);
  Ptr<DumpContext> ctx = dumpContextFactory(0, nullptr, level);
  ctx->writeCallbackIs(&sink);
  dump(ctx);
  return text;
}

// Adapts a command function to the socket's callback interface: checks the
// number of arguments, then turns whatever the function returns or throws
// into the one reply.
class SimpleAgentSocketHandler::FunctionCallback : public AgentSocketCallback {
 public:
  void handleCommand(U32 clientFd, const String& commandArgs) override {
    const String reply = replyTo(CommandArgs(commandArgs));
    if (!writeToClient(static_cast<int>(clientFd), reply)) {
      ZUM_TRACE(tr, 3) << "Reply to " << commandType() << " cut: client gone or buffer full";
    }
  }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  FunctionCallback(const String& word, const String& usage, U32 minArgs, U32 maxArgs, CommandFn fn)
      : AgentSocketCallback("SimpleAgentSocketHandler:" + word, word),
        usage_(usage),
        minArgs_(minArgs),
        maxArgs_(maxArgs),
        fn_(std::move(fn)) {}

  String replyTo(const CommandArgs& args) const {
    try {
      if (args.size() < minArgs_ || args.size() > maxArgs_) throw CommandError("usage: " + usage_);
      return fn_(args);
    } catch (const std::exception& e) {
      ZUM_TRACE(tr, 3) << "Command " << commandType() << " failed: " << e.what();
      commandFailed.log(commandType().c_str(), e.what());
      return String("error: ") + e.what() + "\n";
    }
  }

  const String usage_;
  const U32 minArgs_;
  const U32 maxArgs_;
  const CommandFn fn_;
};

SimpleAgentSocketHandler::SimpleAgentSocketHandler(const String& socketName)
    : Zum::Entity("SimpleAgentSocketHandler"), handler_(agentSocketHandlerSmFactory(socketName)) {
  handler_->peerCredentialCheckIs(true);  // see the header for why
  commandIs("help", "help: lists the commands", 0, 0, [this](const CommandArgs&) { return helpText(); });
}

void SimpleAgentSocketHandler::commandIs(const String& word, const String& usage, U32 minArgs, U32 maxArgs,
                                         CommandFn fn) {
  if (!fn) throw Zum::RangeException(Zum::nullParameterText("Olk::SimpleAgentSocketHandler", "command"));
  if (minArgs > maxArgs) throw Zum::RangeException("SimpleAgentSocketHandler::minArgs > maxArgs not allowed");
  commands_.set(word, usage);
  handler_->agentSocketCallbackIs(Zum::create<FunctionCallback>(word, usage, minArgs, maxArgs, std::move(fn)));
}

void SimpleAgentSocketHandler::commandDel(const String& word) {
  commands_.del(word);
  handler_->agentSocketCallbackDel(word);
}

void SimpleAgentSocketHandler::handleDel() {
  for (const String& word : commands_.keys()) handler_->agentSocketCallbackDel(word);
}

String SimpleAgentSocketHandler::helpText() const {
  String text;
  for (const auto& [word, usage] : commands_) text += usage + "\n";
  return text;
}

Ptr<SimpleAgentSocketHandler> simpleAgentSocketHandlerFactory(const String& socketName) {
  return Zum::create<SimpleAgentSocketHandler>(socketName);
}

}  // namespace Olk
