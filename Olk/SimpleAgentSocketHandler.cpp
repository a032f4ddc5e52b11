#include "Olk/SimpleAgentSocketHandler.h"

#include <exception>

#include "platform/Exception.h"
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

// Adapts a command function to the socket's callback interface and turns
// whatever it returns or throws into the reply.
class SimpleAgentSocketHandler::FunctionCallback : public AgentSocketCallback {
 public:
  void handleCommand(U32 clientFd, const String& commandArgs) override {
    const CommandRequest request{static_cast<int>(clientFd), commandArgs};
    String reply;
    try {
      reply = fn_(request);
    } catch (const std::exception& e) {
      ZUM_TRACE(tr, 3) << "Command " << commandType() << " failed: " << e.what();
      commandFailed.log(commandType().c_str(), e.what());
      reply = String("error: ") + e.what() + "\n";
    }
    if (!writeToClient(request.clientFd, reply)) {
      ZUM_TRACE(tr, 3) << "Reply to " << commandType() << " cut: client gone or buffer full";
    }
  }

 private:
  template <class T, class... A>
  friend Ptr<T> Zum::create(A&&...);
  FunctionCallback(const String& word, CommandFn fn)
      : AgentSocketCallback("SimpleAgentSocketHandler:" + word, word), fn_(std::move(fn)) {}

  const CommandFn fn_;
};

SimpleAgentSocketHandler::SimpleAgentSocketHandler(const String& socketName)
    : Zum::Entity("SimpleAgentSocketHandler"), handler_(agentSocketHandlerSmFactory(socketName)) {
  handler_->peerCredentialCheckIs(true);  // see the header for why
  commandIs("help", "lists the commands", [this](const CommandRequest&) { return helpText(); });
}

void SimpleAgentSocketHandler::commandIs(const String& word, const String& usage, CommandFn fn) {
  if (!fn) throw Zum::RangeException(Zum::nullParameterText("Olk::SimpleAgentSocketHandler", "command"));
  commands_.set(word, usage);
  handler_->agentSocketCallbackIs(Zum::create<FunctionCallback>(word, std::move(fn)));
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
  for (const auto& [word, usage] : commands_) text += word + " - " + usage + "\n";
  return text;
}

Ptr<SimpleAgentSocketHandler> simpleAgentSocketHandlerFactory(const String& socketName) {
  return Zum::create<SimpleAgentSocketHandler>(socketName);
}

}  // namespace Olk
