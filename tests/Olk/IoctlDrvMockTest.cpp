#include "Olk/IoctlDrvMock.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <vector>

using namespace Olk;

namespace {

std::vector<String> contents(const Zum::Queue<String>& q) {
  std::vector<String> out;
  for (U64 i = q.head(); i < q.tail(); ++i) out.push_back(q.at(i));
  return out;
}

}  // namespace

TEST(IoctlDrvMock, FormatsOnlyTheFirstSizeCharacters) {
  EXPECT_EQ(formatIoctlCall("show version", 4), "ioctl \"show\" 4");
  EXPECT_EQ(formatIoctlCall("ab", 8), "ioctl \"ab\" 8");
}

TEST(IoctlDrvMock, NoExpectationsReturnsMinusOneWithErrnoOne) {
  auto mock = ioctlDrvMockFactory();
  char buf[16] = "command";
  errno = 0;
  EXPECT_EQ(mock->ioctl(buf, sizeof buf, 0, false, false), -1);
  EXPECT_EQ(errno, 1);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(contents(mock->actual()), std::vector<String>{"ioctl \"command\" 16"});
}

TEST(IoctlDrvMock, PlaysScriptedSequenceInOrder) {
  auto mock = ioctlDrvMockFactory();
  mock->expectIoctl("get a", 32, "value a", 7);
  mock->expectIoctl("set b 1", 32, "ignored", 0);
  mock->expectIoctl("bad c", 32, "ignored", -22);
  mock->expectIoctl("get d", 32, "value d", 3);

  EXPECT_EQ(mock->testIoctl("get a", 32), (TestIoctlOut{7, "value a"}));
  EXPECT_EQ(mock->testIoctl("set b 1", 32), (TestIoctlOut{0, ""}));
  errno = 0;
  EXPECT_EQ(mock->testIoctl("bad c", 32), (TestIoctlOut{-22, ""}));
  EXPECT_EQ(errno, 22);
  EXPECT_EQ(mock->testIoctl("get d", 32), (TestIoctlOut{3, "value d"}));
  EXPECT_EQ(mock->index(), 4u);
  EXPECT_EQ(mock->testIoctl("get e", 32).returnCode, -1) << "script ran out";
  EXPECT_EQ(mock->index(), 4u);
  EXPECT_EQ(mock->actual().size(), 5u);
}

TEST(IoctlDrvMock, MismatchConsumesExpectationAndRecordsDivergence) {
  auto mock = ioctlDrvMockFactory();
  mock->expectIoctl("first", 16, "one", 1);
  mock->expectIoctl("second", 16, "two", 2);
  EXPECT_EQ(mock->testIoctl("second", 16).returnCode, -1);
  EXPECT_EQ(mock->testIoctl("second", 16), (TestIoctlOut{2, "two"}));
  // The test finds where the agent went astray by comparing the queues.
  EXPECT_EQ(mock->actual().at(0), "ioctl \"second\" 16");
  EXPECT_EQ(mock->expected().at(0).call, "ioctl \"first\" 16");
}

TEST(IoctlDrvMock, PositiveDefaultAfterMismatchLeavesConsumedOutput) {
  auto mock = ioctlDrvMockFactory();
  mock->defaultValueIs("ioctl", 5);
  mock->expectIoctl("expected", 16, "scripted", 1);
  EXPECT_EQ(mock->testIoctl("other", 16), (TestIoctlOut{5, "scripted"}));
  EXPECT_EQ(mock->testIoctl("more", 16), (TestIoctlOut{5, "scripted"})) << "still the last consumed one";
  mock->defaultValueDel("ioctl");
  EXPECT_EQ(mock->defaultValue("ioctl"), 0);
  EXPECT_EQ(mock->testIoctl("more", 16), (TestIoctlOut{0, ""}));
}

TEST(IoctlDrvMock, OutputLongerThanBufferLeavesItEmpty) {
  auto mock = ioctlDrvMockFactory();
  mock->expectIoctl("cmd", 4, "12345", 9);
  mock->expectIoctl("cmd", 4, "1234", 9);
  EXPECT_EQ(mock->testIoctl("cmd", 4), (TestIoctlOut{9, ""}));
  EXPECT_EQ(mock->testIoctl("cmd", 4), (TestIoctlOut{9, "1234"})) << "exactly the size fits, unterminated";
}

TEST(IoctlDrvMock, CommandsDifferingAfterSizeMatchTheSameExpectation) {
  auto mock = ioctlDrvMockFactory();
  mock->expectIoctl("show interfaces", 4, "ok", 1);
  mock->expectIoctl("show interfaces", 4, "ok", 1);
  EXPECT_EQ(mock->testIoctl("show version", 4).returnCode, 1);
  EXPECT_EQ(mock->testIoctl("shox", 4).returnCode, -1);
}

TEST(IoctlDrvMock, DequeuedExpectationsAreSkipped) {
  auto mock = ioctlDrvMockFactory();
  mock->expectIoctl("a", 8, "", 1);
  mock->expectIoctl("b", 8, "", 2);
  EXPECT_EQ(mock->expectedDeq().call, "ioctl \"a\" 8");
  EXPECT_EQ(mock->testIoctl("b", 8).returnCode, 2);
  mock->expectedDelAll();
  mock->actualDelAll();
  mock->indexIs(0);
  mock->expectIoctl("c", 8, "x", 3);
  EXPECT_EQ(mock->testIoctl("c", 8), (TestIoctlOut{3, "x"}));
  EXPECT_EQ(mock->actual().size(), 1u);
}

TEST(IoctlDrvMock, MockedCallUsesPerFunctionDefaults) {
  auto mock = ioctlDrvMockFactory();
  EXPECT_EQ(mock->defaultValue("ioctl"), -1);
  EXPECT_EQ(mock->mockedCall("open", "open x"), 0);
  mock->defaultValueIs("open", 4);
  EXPECT_EQ(mock->mockedCall("open", "open x"), 4);
}

TEST(IoctlDrvMock, ValuesTextForms) {
  EXPECT_EQ(valueToStrep(ExpectedCall{"ioctl \"x\" 4", -2, "out"}),
            "Value('Olk::ExpectedCall', ** {'call': 'ioctl \"x\" 4', 'returnValue': -2, 'output': 'out'})");
  EXPECT_EQ(valueToStrep(TestIoctlOut{3, "abc"}), "Value('Olk::TestIoctlOut', ** {'returnCode': 3, 'outStr': 'abc'})");
}
