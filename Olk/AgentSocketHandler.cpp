#include "Olk/AgentSocketHandler.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>
#include <ostream>
#include <typeinfo>

namespace Olk {

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

}  // namespace Olk
