// The agent command socket: operators and scripts talk to a running agent.
//
// An agent listens on a stream socket in the Linux abstract namespace, at the
// address "\0s<name>". Each connection carries exactly one command: the
// handler reads one receive of at most 1027 bytes, splits it at the first
// blank into the command word and its argument text, hands both to the
// `AgentSocketCallback` registered for the word, and closes the connection.
// The reply is whatever the callback writes to the client descriptor before
// it returns; an unregistered word gets "Unknown Command \n".
//
// Everything runs on the agent's activity loop through readability
// notifications: a client that connects and never sends costs one descriptor
// and nothing else. Abstract sockets carry no file permissions; the optional
// peer-credential check, the client cap and the idle time-out in
// `AgentSocketHandlerSm` bound who may connect and how many may linger.
// `BaseOutputSm` is the common root of the library's state machines that can
// write their state into a dump.
#pragma once

#include <iosfwd>
#include <utility>

#include "platform/Entity.h"
#include "platform/Types.h"

namespace Olk {

class DumpContext;

// Root of the output state machines: anything that can describe itself in a
// dump and name its most-derived type in traces.
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

}  // namespace Olk
