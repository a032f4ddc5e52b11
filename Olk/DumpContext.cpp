#include "Olk/DumpContext.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <limits>
#include <string>

#include "platform/Exception.h"
#include "platform/Rivlog.h"

namespace Olk {

int DumpWriteCallbackBase::write(const void*, U32) {
  ZUM_ASSERT(0 && "Must override in derived class");
  return -1;
}

DumpContext::DumpContext(unsigned fd, gzFile gz, DumpLevel level)
    : fd_(static_cast<int>(fd)),
      gzFileHandle_(gz),
      level_(level),
      buf_(new char[defaultDumpBufSize]) {}

Ptr<DumpContext> DumpContext::dumpContext(int fd, DumpLevel level, bool dumpDuplicates) {
  Ptr<DumpContext> ctx = dumpContextFactory(static_cast<unsigned>(fd), nullptr, level);
  ctx->dumpDuplicatesIs(dumpDuplicates);
  return ctx;
}

Ptr<DumpContext> dumpContextFactory(unsigned fd, gzFile gz, DumpLevel level) {
  return Ptr<DumpContext>(new DumpContext(fd, gz, level));
}

void DumpContext::markObject(const void* obj) const {
  if (dumpDuplicates_) return;
  dumpedObjMap_[obj] = currentLineNum_ + 1;
}

bool DumpContext::isDumped(const void* obj) const {
  if (dumpDuplicates_) return false;
  return dumpedObjMap_.count(obj) != 0;
}

U32 DumpContext::getDumpLineForObj(const void* obj) const {
  ZUM_ASSERT(!dumpDuplicates());
  auto iter = dumpedObjMap_.find(obj);
  ZUM_ASSERT(iter != dumpedObjMap_.cend());
  return iter->second;
}

namespace {

// Sends `n` bytes of the context's buffer to its sink; -1 on failure.
int emit(const DumpContext& ctx, int n) {
  int written;
  if (ctx.gzFileHandle()) {
    written = gzwrite(ctx.gzFileHandle(), ctx.buf(), static_cast<unsigned>(n));
  } else if (ctx.writeCallback()) {
    written = ctx.writeCallback()->write(ctx.buf(), static_cast<U32>(n));
  } else {
    written = static_cast<int>(::write(ctx.fd(), ctx.buf(), static_cast<size_t>(n)));
  }
  return written == 0 ? -1 : written;
}

// Advances the line count over the `n` bytes just written.
void countLines(const DumpContext& ctx, int n) {
  const char* buf = ctx.buf();
  U32 lines = 0;
  for (int i = 0; i < n && buf[i]; ++i) lines += buf[i] == '\n';
  ctx.currentLineNumIs(ctx.currentLineNum() + lines);
  ctx.bufEndsWithNewLineIs(n > 0 && buf[n - 1] == '\n');
}

// How operators' tools recognise this failure; spelled out because the
// compiler's own rendering of the signature drops a qualifier.
const char* const objDumpPrintfSignature =
    "void Olk::objDumpPrintf(const Zum::Ptr<const Olk::DumpContext>&, const char*, ...)";

}  // namespace

void objDumpPrintf(const Ptr<const DumpContext>& dumpCtx, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  int result;
  if (!dumpCtx) {
    result = vdprintf(1, fmt, args);
  } else {
    char* buf = dumpCtx->buf();
    const size_t size = dumpCtx->dumpBufSize();
    int n = 0;
    if (dumpCtx->dumpLineNumbers()) {
      n = std::snprintf(buf, size, "%8u ", dumpCtx->currentLineNum() + 1);
    }
    n += std::vsnprintf(buf + n, size - static_cast<size_t>(n), fmt, args);
    ZUM_ASSERT(n < (int)dumpCtx->dumpBufSize());
    // Even an empty text is handed to the sink: a sink that takes no bytes
    // has failed, whatever it was given.
    result = emit(*dumpCtx, n);
    countLines(*dumpCtx, n);
  }
  va_end(args);
  if (result < 0 && dumpCtx && dumpCtx->exitOnWriteError()) {
    const int err = errno;
    std::fprintf(stderr, "\n%s exiting due to write error return %d errno %d (%s)\n",
                 objDumpPrintfSignature, result, err, std::strerror(err));
    std::fflush(stderr);
    _exit(1);
  }
}

int openDumpFile(const char* path, bool* append) {
  *append = true;
  struct stat st;
  int flags = O_WRONLY | O_CREAT | O_APPEND;
  if (stat(path, &st) != 0) {
    if (errno != ENOENT) {
      std::fprintf(stderr, "Cannot open %s, error %d\n", path, errno);
      return -1;
    }
  } else if (!S_ISREG(st.st_mode) && !S_ISDIR(st.st_mode) && !S_ISLNK(st.st_mode) &&
             !S_ISBLK(st.st_mode)) {
    // A pipe, terminal or socket: there is no end to append to.
    *append = false;
    flags = O_RDWR | O_CREAT;
  }
  int fd = open(path, flags, 0644);
  if (fd < 0) std::fprintf(stderr, "Cannot open %s, error %d\n", path, errno);
  return fd;
}

gzFile openCompressedDumpFile(const char* path) {
  bool append;
  int fd = openDumpFile(path, &append);
  if (fd == -1) return nullptr;
  gzFile gz = gzdopen(fd, append ? "ab9h" : "wb9h");
  if (!gz) close(fd);
  return gz;
}

void closeCompressedDumpFile(gzFile gz) { gzclose(gz); }

namespace {

// The trace ring's view of a dump context; a null context has no list cap.
class RivlogDumpSink : public Rivlog::DumpSink {
 public:
  explicit RivlogDumpSink(const Ptr<const DumpContext>& ctx) : ctx_(ctx) {}
  void line(const std::string& text) override { objDumpPrintf(ctx_, "%s", text.c_str()); }
  std::size_t maxEntries() const override {
    return ctx_ ? ctx_->maxListEntriesDumped() : std::numeric_limits<std::size_t>::max();
  }
  void truncated() override {
    if (ctx_) ctx_->truncatedIs(true);
  }

 private:
  const Ptr<const DumpContext>& ctx_;
};

}  // namespace

void rivlogDump(const Ptr<const DumpContext>& dumpCtx) {
  RivlogDumpSink sink(dumpCtx);
  Rivlog::dump(sink);
}

namespace {

bool isPlainFileName(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         name.find('\0') == std::string::npos;
}

// Whether an existing entry may be overwritten: our own regular file, with no
// other name elsewhere that truncating would reach too.
bool isOwnDumpFile(const struct stat& st) {
  return S_ISREG(st.st_mode) && st.st_uid == geteuid() && st.st_nlink == 1;
}

// Opens the existing `name` in `dirFd` for rewriting, after checking what it
// is without following it or opening it (opening a device or a FIFO can have
// effects of its own), and again on the opened descriptor, in case the entry
// was swapped in between. -1 with errno set on refusal.
int reopenOwnDumpFile(int dirFd, const char* name) {
  struct stat st;
  if (fstatat(dirFd, name, &st, AT_SYMLINK_NOFOLLOW) != 0) return -1;
  if (S_ISLNK(st.st_mode)) {
    errno = ELOOP;
    return -1;
  }
  if (!isOwnDumpFile(st)) {
    errno = EPERM;
    return -1;
  }
  // O_NONBLOCK only matters if a FIFO was swapped in; on a file it is inert.
  const int fd = openat(dirFd, name, O_WRONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) return -1;
  int err = 0;
  if (fstat(fd, &st) != 0) {
    err = errno;
  } else if (!isOwnDumpFile(st)) {
    err = EPERM;
  } else if (ftruncate(fd, 0) != 0) {
    err = errno;
  }
  if (err == 0) return fd;
  close(fd);
  errno = err;
  return -1;
}

}  // namespace

gzFile openCompressedDumpFileInDir(const std::string& dir, const std::string& name) {
  if (!isPlainFileName(name)) {
    errno = EINVAL;
    return nullptr;
  }
  const int dirFd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (dirFd < 0) return nullptr;
  // O_EXCL never follows a symbolic link: a planted one makes this fail with
  // EEXIST, and the checks on the existing entry refuse it.
  int fd = openat(dirFd, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
  if (fd < 0 && errno == EEXIST) fd = reopenOwnDumpFile(dirFd, name.c_str());
  const int err = errno;
  close(dirFd);
  if (fd < 0) {
    errno = err;
    return nullptr;
  }
  gzFile gz = gzdopen(fd, "wb9h");
  if (!gz) close(fd);
  return gz;
}

const char* objDumpSanitizeTypeName(const char* name) {
  const char* colon = std::strrchr(name, ':');
  return colon ? colon + 1 : name;
}

}  // namespace Olk
