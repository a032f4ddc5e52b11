#include "Olk/IoctlDrvMock.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/Format.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("IoctlDrvMock");
constexpr int traceCall = 5;

}  // namespace

String formatIoctlCall(const char* buf, unsigned size) {
  int n = static_cast<int>(size);
  return Zum::format("ioctl \"%.*s\" %d", n, buf, n);
}

String valueToStrep(const ExpectedCall& v) {
  Zum::ValueStrepWriter w("Olk::ExpectedCall");
  w.field("call", v.call).field("returnValue", v.returnValue).field("output", v.output);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ExpectedCall* out) {
  Zum::ValueStrepReader(cur, end, "Olk::ExpectedCall")
      .field("call", &out->call)
      .field("returnValue", &out->returnValue)
      .field("output", &out->output)
      .done();
}

String valueToStrep(const TestIoctlOut& v) {
  Zum::ValueStrepWriter w("Olk::TestIoctlOut");
  w.field("returnCode", v.returnCode).field("outStr", v.outStr);
  return std::move(w).done();
}

void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TestIoctlOut* out) {
  Zum::ValueStrepReader(cur, end, "Olk::TestIoctlOut").field("returnCode", &out->returnCode).field("outStr", &out->outStr).done();
}

IoctlDrvMock::IoctlDrvMock() : IoctlDrvInterface("ioctlDrvMock") { defaultValueIs("ioctl", -1); }

void IoctlDrvMock::expectIoctl(const String& cmd, int size, const String& output, int returnValue) {
  expectedEnq({formatIoctlCall(cmd.c_str(), static_cast<unsigned>(size)), returnValue, output});
}

int IoctlDrvMock::mockedCall(const String& funcName, const String& call) {
  actual_.push(call);
  // Expectations dequeued before their turn can no longer be checked.
  if (index_ < expected_.head()) index_ = static_cast<U32>(expected_.head());
  if (index_ < expected_.tail()) {
    const ExpectedCall& next = expected_.at(index_++);
    if (next.call == call) return next.returnValue;
  }
  return defaultValue(funcName);
}

int IoctlDrvMock::ioctl(char* buf, unsigned int size, unsigned int, bool, bool) {
  String call = formatIoctlCall(buf, size);
  ZUM_TRACE(tr, traceCall) << call;
  int rc = mockedCall("ioctl", call);
  if (rc <= 0) {
    buf[0] = '\0';
    if (rc < 0) errno = -rc;
    return rc;
  }
  // The answer is the consumed expectation's, even when the code came from
  // defaultValue after a mismatch.
  bool consumed = index_ > 0 && index_ - 1 >= expected_.head() && index_ - 1 < expected_.tail();
  String output = consumed ? expected_.at(index_ - 1).output : String();
  if (output.size() > size) {
    buf[0] = '\0';
  } else {
    std::strncpy(buf, output.c_str(), size);
  }
  return rc;
}

TestIoctlOut IoctlDrvMock::testIoctl(const String& cmd, unsigned size) {
  std::vector<char> buf(size + 1, '\0');  // one spare byte keeps the text terminated
  std::strncpy(buf.data(), cmd.c_str(), size);
  int rc = ioctl(buf.data(), size, 0, false, false);
  return {rc, String(buf.data())};
}

Zum::Ptr<IoctlDrvMock> ioctlDrvMockFactory() { return Zum::create<IoctlDrvMock>(); }

}  // namespace Olk
