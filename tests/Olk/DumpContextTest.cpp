#include "Olk/DumpContext.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include "TestSupport.h"
#include "platform/Rivlog.h"

#include <fstream>
#include <sstream>
#include <string>

using namespace Olk;

namespace {

class CollectingCallback : public DumpWriteCallbackBase {
 public:
  int write(const void* buffer, U32 length) override {
    text.append(static_cast<const char*>(buffer), length);
    return static_cast<int>(length);
  }
  std::string text;
};

using OlkTest::TempDir;

std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

// Decompresses every gzip member of `path`; also checks the gzip magic.
std::string readGzip(const std::string& path) {
  std::string raw = readFile(path);
  EXPECT_GE(raw.size(), 2u);
  EXPECT_EQ(static_cast<unsigned char>(raw[0]), 0x1f);
  EXPECT_EQ(static_cast<unsigned char>(raw[1]), 0x8b);
  gzFile gz = gzopen(path.c_str(), "rb");
  std::string out;
  char buf[256];
  int n;
  while ((n = gzread(gz, buf, sizeof buf)) > 0) out.append(buf, n);
  EXPECT_EQ(n, 0);
  gzclose(gz);
  return out;
}

Ptr<DumpContext> callbackContext(CollectingCallback& cb) {
  Ptr<DumpContext> ctx = dumpContextFactory(1, nullptr, dumpNormal);
  ctx->writeCallbackIs(&cb);
  return ctx;
}

}  // namespace

TEST(DumpContext, BookmarkEnablesYieldingUntilItDisablesIt) {
  Ptr<DumpContext> ctx = DumpContext::dumpContext(7, dumpVerbose, true);
  EXPECT_FALSE(ctx->yieldingEnabled());
  DumpBookmarkBase bookmark;
  ctx->bookmarkIs(&bookmark);
  EXPECT_TRUE(ctx->yieldingEnabled());
  bookmark.disableYieldingIs(true);
  EXPECT_FALSE(ctx->yieldingEnabled());
}

TEST(DumpContext, CountsLinesAndPrefixesLineNumbers) {
  CollectingCallback cb;
  Ptr<DumpContext> ctx = callbackContext(cb);
  ctx->dumpLineNumbersIs(true);
  objDumpPrintf(ctx, "a %d\n", 1);
  objDumpPrintf(ctx, "b\nc");
  EXPECT_FALSE(ctx->bufEndsWithNewLine());
  objDumpPrintf(ctx, "\n");
  EXPECT_EQ(cb.text, "       1 a 1\n       2 b\nc       3 \n");
  EXPECT_EQ(ctx->currentLineNum(), 3u);
  EXPECT_TRUE(ctx->bufEndsWithNewLine());
}

// The trace ring dumps as counted lines and obeys the context's list cap.
TEST(DumpContext, TraceRingDumpsWithinListCap) {
  Rivlog::ring().capacityIs(8);
  Rivlog::Handle& h = Rivlog::handle("DumpContextTest");
  for (const char* t : {"one", "two", "three"}) RIVLOG(h, 1, "%s", t);
  CollectingCallback cb;
  Ptr<DumpContext> ctx = callbackContext(cb);
  ctx->maxListEntriesDumpedIs(2);
  rivlogDump(ctx);
  Rivlog::ring().capacityIs(Rivlog::Ring::defaultCapacity);
  EXPECT_EQ(cb.text.rfind("Rivlog ring: 3 records kept of ", 0), 0u) << cb.text;
  EXPECT_TRUE(ctx->truncated());
  EXPECT_EQ(ctx->currentLineNum(), 4u);  // heading, left-out note, two records
  EXPECT_NE(cb.text.find("DumpContextTest/1 three\n"), std::string::npos) << cb.text;
}

TEST(DumpContext, DeduplicatesByAddressUnlessDumpingDuplicates) {
  CollectingCallback cb;
  Ptr<DumpContext> ctx = callbackContext(cb);
  int a = 0, b = 0;
  objDumpPrintf(ctx, "header\n");
  ctx->markObject(&a);
  objDumpPrintf(ctx, "a\n");
  EXPECT_TRUE(ctx->isDumped(&a));
  EXPECT_FALSE(ctx->isDumped(&b));
  EXPECT_EQ(ctx->getDumpLineForObj(&a), 2u);
  EXPECT_DEATH(ctx->getDumpLineForObj(&b), "iter != dumpedObjMap_.cend\\(\\)");

  ctx->dumpDuplicatesIs(true);
  ctx->markObject(&b);
  EXPECT_FALSE(ctx->isDumped(&a));
  EXPECT_FALSE(ctx->isDumped(&b));
  EXPECT_DEATH(ctx->getDumpLineForObj(&a), "!dumpDuplicates\\(\\)");
}

TEST(DumpContext, OutputFillingTheBufferIsAProgrammingError) {
  CollectingCallback cb;
  Ptr<DumpContext> ctx = callbackContext(cb);
  std::string justFits(ctx->dumpBufSize() - 1, 'x');
  objDumpPrintf(ctx, "%s", justFits.c_str());
  EXPECT_EQ(cb.text.size(), justFits.size());
  std::string tooLong(ctx->dumpBufSize(), 'x');
  EXPECT_DEATH(objDumpPrintf(ctx, "%s", tooLong.c_str()), "n < \\(int\\)dumpCtx->dumpBufSize\\(\\)");
}

TEST(DumpContext, BaseWriteCallbackMustBeOverridden) {
  DumpWriteCallbackBase base;
  Ptr<DumpContext> ctx = dumpContextFactory(1, nullptr, dumpNormal);
  ctx->writeCallbackIs(&base);
  EXPECT_DEATH(objDumpPrintf(ctx, "x"), "0 && \"Must override in derived class\"");
}

TEST(DumpContext, NullContextWritesToStandardOutput) {
  testing::internal::CaptureStdout();
  objDumpPrintf(nullptr, "plain %s\n", "text");
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "plain text\n");
}

TEST(DumpContext, WriteErrorIsIgnoredUnlessExitRequested) {
  // A descriptor number far above anything open, so the death test's own
  // pipes cannot reuse it: writing to it fails with EBADF.
  const int closedFd = 4000;
  ASSERT_EQ(fcntl(closedFd, F_GETFD), -1);
  Ptr<DumpContext> ctx = DumpContext::dumpContext(closedFd, dumpNormal, false);
  objDumpPrintf(ctx, "lost\n");
  EXPECT_EQ(ctx->currentLineNum(), 1u);

  ctx->exitOnWriteErrorIs(true);
  EXPECT_EXIT(objDumpPrintf(ctx, "lost\n"), testing::ExitedWithCode(1),
              "\nvoid Olk::objDumpPrintf\\(const Zum::Ptr<const Olk::DumpContext>&, const char\\*, "
              "...\\) exiting due to write error return -1 errno 9 \\(Bad file descriptor\\)\n");
}

// A sink that accepts nothing, and an empty text (a zero-byte write), both
// count as write errors.
TEST(DumpContext, ZeroByteWritesCountAsWriteErrors) {
  struct Refusing : DumpWriteCallbackBase {
    int write(const void*, U32) override { return 0; }
  } refusing;
  CollectingCallback cb;
  for (DumpWriteCallbackBase* sink : std::initializer_list<DumpWriteCallbackBase*>{&refusing, &cb}) {
    Ptr<DumpContext> ctx = dumpContextFactory(1, nullptr, dumpNormal);
    ctx->writeCallbackIs(sink);
    ctx->exitOnWriteErrorIs(true);
    EXPECT_EXIT(objDumpPrintf(ctx, "%s", sink == &cb ? "" : "x"), testing::ExitedWithCode(1), "write error return -1");
  }
  objDumpPrintf(callbackContext(cb), "%s", "");  // ignored without exitOnWriteError
  EXPECT_EQ(cb.text, "");
}

TEST(DumpContext, OpenDumpFileCreatesAndAppends) {
  TempDir dir;
  std::string path = dir.path("dump.txt");
  mode_t old = umask(022);
  bool append = false;
  int fd = openDumpFile(path.c_str(), &append);
  umask(old);
  ASSERT_GE(fd, 0);
  EXPECT_TRUE(append);
  struct stat st;
  ASSERT_EQ(fstat(fd, &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  objDumpPrintf(DumpContext::dumpContext(fd, dumpNormal, false), "first\n");
  close(fd);

  append = false;
  fd = openDumpFile(path.c_str(), &append);
  EXPECT_TRUE(append);
  objDumpPrintf(DumpContext::dumpContext(fd, dumpNormal, false), "second\n");
  close(fd);
  EXPECT_EQ(readFile(path), "first\nsecond\n");
}

TEST(DumpContext, OpenDumpFileOnFifoDoesNotAppend) {
  TempDir dir;
  std::string path = dir.path("fifo");
  ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
  bool append = true;
  int fd = openDumpFile(path.c_str(), &append);
  ASSERT_GE(fd, 0);
  EXPECT_FALSE(append);
  objDumpPrintf(DumpContext::dumpContext(fd, dumpNormal, false), "through the pipe\n");
  char buf[64] = {};
  ASSERT_EQ(read(fd, buf, sizeof buf), 17);  // opened read-write: read back our own text
  EXPECT_STREQ(buf, "through the pipe\n");
  close(fd);
}

TEST(DumpContext, OpenFailuresPrintAndReturnMinusOne) {
  TempDir dir;
  std::string file = dir.path("plain");
  close(open(file.c_str(), O_WRONLY | O_CREAT, 0644));
  std::string underFile = file + "/x";  // stat fails with ENOTDIR
  bool append;
  testing::internal::CaptureStderr();
  EXPECT_EQ(openDumpFile(underFile.c_str(), &append), -1);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Cannot open " + underFile + ", error " + std::to_string(ENOTDIR) + "\n");

  std::string directory = dir.path("");  // open of a directory for writing fails
  testing::internal::CaptureStderr();
  EXPECT_EQ(openCompressedDumpFile(directory.c_str()), nullptr);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "Cannot open " + directory + ", error " + std::to_string(EISDIR) + "\n");
}

TEST(DumpContext, CompressedDumpIsGzipAndAppendsAMember) {
  TempDir dir;
  std::string path = dir.path("dump.gz");
  gzFile gz = openCompressedDumpFile(path.c_str());
  ASSERT_NE(gz, nullptr);
  Ptr<DumpContext> ctx = dumpContextFactory(99, gz, dumpNormal);
  ctx->dumpLineNumbersIs(true);
  objDumpPrintf(ctx, "part %d\n", 1);
  closeCompressedDumpFile(gz);
  EXPECT_EQ(readGzip(path), "       1 part 1\n");

  gz = openCompressedDumpFile(path.c_str());
  ASSERT_NE(gz, nullptr);
  objDumpPrintf(dumpContextFactory(99, gz, dumpNormal), "part %d\n", 2);
  closeCompressedDumpFile(gz);
  EXPECT_EQ(readGzip(path), "       1 part 1\npart 2\n");
}

TEST(DumpContext, SanitizedTypeNameDropsQualifiers) {
  EXPECT_STREQ(objDumpSanitizeTypeName("Olk::Cuckoo::HashTable"), "HashTable");
  EXPECT_STREQ(objDumpSanitizeTypeName("TimerWheel"), "TimerWheel");
  EXPECT_STREQ(objDumpSanitizeTypeName("Olk::"), "");
}

namespace {

// A dump directory inside a scratch directory, so that escapes land beside it.
class DumpDirTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(mkdir(dumps.c_str(), 0755), 0); }

  // Writes `text` through a dump opened in `dumps`; false when refused.
  bool dump(const std::string& name, const char* text) {
    gzFile gz = openCompressedDumpFileInDir(dumps, name);
    if (!gz) return false;
    objDumpPrintf(dumpContextFactory(99, gz, dumpNormal), "%s", text);
    closeCompressedDumpFile(gz);
    return true;
  }
  // Expects `name` refused with `err`.
  void expectRefused(const std::string& name, int err) {
    errno = 0;
    EXPECT_EQ(openCompressedDumpFileInDir(dumps, name), nullptr) << name;
    EXPECT_EQ(errno, err) << name;
  }
  static void writeFile(const std::string& path, const char* text) {
    std::ofstream(path, std::ios::binary) << text;
  }

  TempDir scratch;
  const std::string dumps = scratch.path("dumps");
  const std::string victim = scratch.path("victim");
};

}  // namespace

TEST_F(DumpDirTest, NewFileIsGzipWithMode0644AndOwnFileIsRewrittenNotAppended) {
  mode_t old = umask(022);
  ASSERT_TRUE(dump("state.gz", "first\n"));
  umask(old);
  const std::string path = dumps + "/state.gz";
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0644u);
  EXPECT_EQ(readGzip(path), "first\n");

  ASSERT_TRUE(dump("state.gz", "second\n"));
  EXPECT_EQ(readGzip(path), "second\n");
}

TEST_F(DumpDirTest, NamesThatAreNotPlainFileNamesAreRefused) {
  writeFile(victim, "victim");
  for (const std::string& name : {std::string(), std::string("."), std::string(".."),
                                  std::string("../victim"), std::string("../x"), victim,
                                  scratch.path("absolute"), std::string("sub/x"),
                                  std::string("x\0y", 3)}) {
    expectRefused(name, EINVAL);
  }
  EXPECT_EQ(readFile(victim), "victim");
  EXPECT_NE(access(scratch.path("x").c_str(), F_OK), 0);
  EXPECT_NE(access(scratch.path("absolute").c_str(), F_OK), 0);
  EXPECT_NE(access((dumps + "/x").c_str(), F_OK), 0);
}

// Planted links, special files, second names of files elsewhere and other
// users' files are refused, and nothing they lead to is touched.
TEST_F(DumpDirTest, PlantedEntriesAreRefusedTouchingNothing) {
  writeFile(victim, "victim");
  const std::string target = scratch.path("created");
  ASSERT_EQ(symlink(victim.c_str(), (dumps + "/evil.gz").c_str()), 0);
  ASSERT_EQ(symlink(target.c_str(), (dumps + "/dangling.gz").c_str()), 0);
  ASSERT_EQ(mkfifo((dumps + "/fifo").c_str(), 0600), 0);  // would block the agent with no reader
  ASSERT_EQ(mkdir((dumps + "/dir").c_str(), 0755), 0);
  ASSERT_EQ(link(victim.c_str(), (dumps + "/hard.gz").c_str()), 0);
  for (auto [name, err] : {std::pair{"evil.gz", ELOOP}, {"dangling.gz", ELOOP}, {"fifo", EPERM}, {"dir", EPERM},
                           {"hard.gz", EPERM}}) {
    expectRefused(name, err);
  }
  EXPECT_EQ(readFile(victim), "victim");
  EXPECT_NE(access(target.c_str(), F_OK), 0);

  // Nor may the dump directory itself be a link elsewhere.
  const std::string linkedDir = scratch.path("linked");
  ASSERT_EQ(symlink(dumps.c_str(), linkedDir.c_str()), 0);
  EXPECT_EQ(openCompressedDumpFileInDir(linkedDir, "x.gz"), nullptr);
  EXPECT_NE(access((dumps + "/x.gz").c_str(), F_OK), 0);

  if (geteuid() != 0) return;  // only root can give a file to another uid
  const std::string other = dumps + "/other.gz";
  writeFile(other, "theirs");
  ASSERT_EQ(chown(other.c_str(), 65534, 65534), 0);
  expectRefused("other.gz", EPERM);
  EXPECT_EQ(readFile(other), "theirs");
}
