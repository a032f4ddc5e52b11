#include "Cell/Cell.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "TestSupport.h"
#include "platform/Exception.h"

namespace {

const char* const identityVariables[] = {"CELLID", "CELLTYPE", "PRODUCT", "ELECTIONMGRSUPPORTED", "CPUBMCMODE"};

// Identity files in a temporary root, no identity variables, and a fresh
// process-wide cache; everything put back afterwards.
class CellTest : public testing::Test {
 protected:
  CellTest() {
    mkdir(dir_.path("etc").c_str(), 0755);
    for (const char* v : identityVariables) unsetenv(v);
    Cell::testHookFileRootIs(root_);
  }
  ~CellTest() override {
    for (const char* v : identityVariables) unsetenv(v);
    Cell::testHookFileRootIs("");
  }

  void fileIs(const char* name, const std::string& text) {
    int fd = open((root_ + name).c_str(), O_CREAT | O_TRUNC | O_WRONLY, 0644);
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  }
  // A Status that has cached nothing yet.
  Zum::Ptr<Cell::Status> freshStatus() { return Cell::statusFactory("test"); }

  OlkTest::TempDir dir_;
  const std::string root_ = dir_.root();
};

class Counter : public Cell::ActiveCell::Notifiee {
 public:
  void onCellId() override { ++calls; }
  int calls = 0;
};

}  // namespace

// The parsing of each identity file is checked by a fuzz target; these
// cases pin the exact refusal text and the cut of ids wider than 32 bits.
TEST_F(CellTest, CellIdFileRefusalTextAndWideIdCutAlikeOnEveryWidth) {
  EXPECT_EQ(Cell::cellId(), 42);  // no variable, no file
  fileIs("/etc/cellid", "1\n");
  OlkTest::expectRangeError([&] { freshStatus()->cellId(); }, "/etc/cellid did not contain a valid cell id");
  fileIs("/etc/cellid", "0x100000002");  // cut to 16 bits alike in 32- and 64-bit builds
  EXPECT_EQ(freshStatus()->cellId(), 2);
}

TEST_F(CellTest, UnreadableCellIdFileThrowsErrnoException) {
  mkdir((root_ + "/etc/cellid").c_str(), 0755);  // opens, but read fails with EISDIR
  try {
    freshStatus()->cellId();
    FAIL() << "a directory was read as a cell id";
  } catch (const Zum::ErrnoException& e) {
    EXPECT_EQ(e.error(), EISDIR);
  }
}

TEST_F(CellTest, EnvironmentWinsOverFileIsCachedAndCutTo16Bits) {
  fileIs("/etc/cellid", "2");
  setenv("CELLID", "7", 1);
  auto s = freshStatus();
  EXPECT_EQ(s->cellId(), 7);
  setenv("CELLID", "5", 1);
  EXPECT_EQ(s->cellId(), 7) << "looked up once";
  setenv("CELLID", "4294967299", 1);  // 2^32 + 3: cut alike in 32- and 64-bit builds
  EXPECT_EQ(freshStatus()->cellId(), 3);
  unsetenv("CELLID");
  EXPECT_EQ(freshStatus()->cellId(), 2);
}

TEST_F(CellTest, CellIdZeroIsNotCachedOnPurpose) {
  setenv("CELLID", "abc", 1);
  auto s = freshStatus();
  EXPECT_EQ(s->cellId(), 0);
  setenv("CELLID", "5", 1);
  EXPECT_EQ(s->cellId(), 5);
}

// Variables win over the files (whose contents the fuzz target covers).
TEST_F(CellTest, NamesAndFlagsFromVariables) {
  fileIs("/etc/celltype", "supervisor");
  setenv("CELLTYPE", "linecard", 1);
  setenv("PRODUCT", "", 1);
  auto s = freshStatus();
  EXPECT_EQ(s->cellType(), "linecard");
  EXPECT_EQ(s->product(), "");
  EXPECT_EQ(Cell::cellType(), "linecard");

  setenv("CPUBMCMODE", "TRUE", 1);
  EXPECT_TRUE(freshStatus()->cpuBmcMode());
  EXPECT_TRUE(Cell::cpuBmcMode());
  setenv("CPUBMCMODE", "true", 1);
  s = freshStatus();
  EXPECT_THROW(s->cpuBmcMode(), Zum::RangeException);
  EXPECT_FALSE(s->cpuBmcModeInitialized());
}

TEST_F(CellTest, FlagIsLookedUpOnce) {
  auto s = freshStatus();
  EXPECT_FALSE(s->electionMgrSupportedInitialized());
  fileIs("/etc/electionMgrSupported", "TRUE");
  EXPECT_TRUE(s->electionMgrSupported());
  EXPECT_TRUE(s->electionMgrSupportedInitialized());
  fileIs("/etc/electionMgrSupported", "FALSE");
  EXPECT_TRUE(s->electionMgrSupported()) << "looked up once";
}

TEST_F(CellTest, PathsDefaultToOwnCell) {
  setenv("CELLID", "1", 1);
  EXPECT_EQ(Cell::path("x", 0), "cell/1/x");
  EXPECT_EQ(Cell::path("x", 2), "cell/2/x");
  EXPECT_EQ(Cell::mountpath("x", 2), "cell/2*/x");
}

TEST_F(CellTest, PathTemplatesNameOwnAndPeerCell) {
  fileIs("/etc/cellid", "1");
  auto dict = Cell::initializeCellPathTemplateDict();
  EXPECT_EQ(dict["%cellId"], "1");
  EXPECT_EQ(dict["%cellPath"], "cell/1");
  EXPECT_EQ(dict["%peerCellId"], "2");
  EXPECT_EQ(dict["%peerCellPath"], "cell/2");
  EXPECT_FALSE(dict["%sysname"].empty());
  EXPECT_EQ(dict.size(), 5u);

  Cell::testHookFileRootIs(root_);  // forget cell 1
  fileIs("/etc/cellid", "2");
  EXPECT_EQ(Cell::initializeCellPathTemplateDict()["%peerCellPath"], "cell/1");
}

TEST_F(CellTest, ActiveCellReportsItsCellId) {
  auto active = Cell::activeCellFactory("activeCell");
  Counter counter;
  counter.notifierIs(active);
  active->cellIdIs(2);
  EXPECT_EQ(active->cellId(), 2);
  EXPECT_EQ(counter.calls, 1);
}
