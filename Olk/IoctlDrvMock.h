// A scripted IoctlDrvInterface for tests of agents that talk to a driver.
//
// A test lists the calls it expects, in order, each with the code to return
// and the answer to leave in the caller's buffer (expectIoctl()). Each call
// the agent makes is recorded in `actual` and checked against the next
// expectation: a match returns the scripted code and answer; a mismatch,
// or a call after the script ran out, consumes that expectation anyway and
// returns the function's `defaultValue` (-1 for "ioctl", i.e. errno 1). The
// mock never fails a test itself: the test compares `actual` with
// `expected` and reports the first divergence.
//
// A call is identified by formatIoctlCall(): only the first `size`
// characters of the command and the size take part, as the driver would
// see them. Expectations keep the running indexes of Zum::Queue, and
// `index` is the running index of the next expectation to check.
#pragma once

#include "Olk/IoctlDrvInterface.h"
#include "Olk/Types.h"
#include "platform/Collection.h"
#include "platform/Strep.h"

namespace Olk {

// "ioctl \"<first size characters of buf>\" <size>".
String formatIoctlCall(const char* buf, unsigned size);

struct ExpectedCall {
  String call;  // as formatIoctlCall() writes it
  int returnValue = 0;
  String output;  // answer left in the caller's buffer when returnValue > 0
  bool operator==(const ExpectedCall&) const = default;
};
String valueToStrep(const ExpectedCall& v);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, ExpectedCall* out);

struct TestIoctlOut {
  int returnCode = 0;
  String outStr;
  bool operator==(const TestIoctlOut&) const = default;
};
String valueToStrep(const TestIoctlOut& v);
void sequenceToValue(Zum::StrepIter& cur, Zum::StrepIter end, TestIoctlOut* out);

class IoctlDrvMock : public IoctlDrvInterface {
 public:
  const Zum::Queue<ExpectedCall>& expected() const { return expected_; }
  void expectedEnq(ExpectedCall call) { expected_.push(std::move(call)); }
  // Removes the oldest expectation; one not yet checked is then skipped.
  ExpectedCall expectedDeq() { return expected_.pop(); }
  void expectedDelAll() { expected_.clear(); }

  const Zum::Queue<String>& actual() const { return actual_; }
  void actualDelAll() { actual_.clear(); }

  U32 index() const { return index_; }
  void indexIs(U32 index) { index_ = index; }

  // The result of a call to `funcName` that matches no expectation; 0 when
  // none is set.
  int defaultValue(const String& funcName) const { return defaultValue_.get(funcName); }
  void defaultValueIs(const String& funcName, int value) { defaultValue_.set(funcName, value); }
  void defaultValueDel(const String& funcName) { defaultValue_.del(funcName); }

  // Expects ioctl with the first `size` characters of `cmd` and that size.
  void expectIoctl(const String& cmd, int size, const String& output, int returnValue);

  // Returns the scripted code. A code <= 0 empties the buffer and, when
  // negative, sets errno to its magnitude. A positive code leaves the
  // expectation's output in the buffer (not terminated when it fills the
  // buffer exactly), or an empty buffer when the output does not fit.
  int ioctl(char* buf, unsigned int size, unsigned int traceLevel, bool printError, bool rivlogError) override;

  // Records `call` and checks it against the next expectation, consuming it.
  int mockedCall(const String& funcName, const String& call);

  // Calls ioctl() with `cmd` copied into a buffer of `size` bytes.
  TestIoctlOut testIoctl(const String& cmd, unsigned size);

 protected:
  template <class T, class... A>
  friend Zum::Ptr<T> Zum::create(A&&...);
  IoctlDrvMock();

 private:
  Zum::Queue<ExpectedCall> expected_;
  Zum::Queue<String> actual_;
  U32 index_ = 0;  // running index in expected_ of the next expectation to check
  Zum::HashMap<String, int> defaultValue_;
};

Zum::Ptr<IoctlDrvMock> ioctlDrvMockFactory();

}  // namespace Olk
