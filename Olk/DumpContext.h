// Dump contexts: where and how an object's textual state dump is written.
//
// A `DumpContext` carries what one dump needs: the sink (a gzip stream, else
// a write callback, else a plain descriptor, in that order of preference),
// the detail level, optional line numbers, de-duplication of objects already
// dumped (a dumper prints a back-reference to a line instead of dumping a
// shared object twice), a cap on list lengths and the policy for write
// errors. Every dumper writes through `objDumpPrintf`, which keeps the line
// count. Dumpers receive a `Ptr<const DumpContext>`; the counters they update
// are mutable. One call's output must fit `dumpBufSize`: longer output is a
// programming error and aborts. Write errors are ignored unless
// `exitOnWriteError` is set, and then end the process at once. A context
// belongs to one thread at a time.
#pragma once

#include <zlib.h>

#include <map>
#include <memory>
#include <string>

#include "Olk/Types.h"
#include "platform/Ptr.h"

namespace Olk {

enum DumpLevel { dumpNormal = 0, dumpVerbose = 1 };

// A context points to a write callback and a bookmark, both declared below.
class DumpWriteCallbackBase;
class DumpBookmarkBase;

class DumpContext : public Zum::PtrInterface {
 public:
  static constexpr U32 defaultMaxListEntriesDumped = 20000;
  static constexpr U32 defaultDumpBufSize = 0x40000;

  // `gz` may be null; when not, it receives the output and the descriptor is
  // unused. The context does not close either.
  DumpContext(unsigned fd, gzFile gz, DumpLevel level);
  // A context over a plain descriptor.
  static Ptr<DumpContext> dumpContext(int fd, DumpLevel level, bool dumpDuplicates);

  int fd() const { return fd_; }
  gzFile gzFileHandle() const { return gzFileHandle_; }
  DumpLevel level() const { return level_; }

  // Not owned; must outlive its use by this context.
  DumpWriteCallbackBase* writeCallback() const { return writeCallback_; }
  void writeCallbackIs(DumpWriteCallbackBase* cb) { writeCallback_ = cb; }

  // Not owned; null for a dump that cannot be resumed.
  DumpBookmarkBase* bookmark() const { return bookmark_; }
  void bookmarkIs(DumpBookmarkBase* b) { bookmark_ = b; }
  // True when a bookmark is present and allows yielding.
  bool yieldingEnabled() const;

  U32 maxListEntriesDumped() const { return maxListEntriesDumped_; }
  void maxListEntriesDumpedIs(U32 v) { maxListEntriesDumped_ = v; }

  // Set by a dumper that cut a list at maxListEntriesDumped.
  bool truncated() const { return truncated_; }
  void truncatedIs(bool v) const { truncated_ = v; }

  U32 currentLineNum() const { return currentLineNum_; }
  void currentLineNumIs(U32 v) const { currentLineNum_ = v; }

  bool bufEndsWithNewLine() const { return bufEndsWithNewLine_; }
  void bufEndsWithNewLineIs(bool v) const { bufEndsWithNewLine_ = v; }

  bool dumpDuplicates() const { return dumpDuplicates_; }
  void dumpDuplicatesIs(bool v) { dumpDuplicates_ = v; }

  bool dumpLineNumbers() const { return dumpLineNumbers_; }
  void dumpLineNumbersIs(bool v) { dumpLineNumbers_ = v; }

  bool exitOnWriteError() const { return exitOnWriteError_; }
  void exitOnWriteErrorIs(bool v) { exitOnWriteError_ = v; }

  U32 dumpBufSize() const { return dumpBufSize_; }
  char* buf() const { return buf_.get(); }

  // Records that `obj` is dumped on the next line; nothing when dumping
  // duplicates.
  void markObject(const void* obj) const;
  // Always false when dumping duplicates.
  bool isDumped(const void* obj) const;
  // The line where `obj` was first dumped; it must have been marked.
  U32 getDumpLineForObj(const void* obj) const;

 private:
  int fd_;
  gzFile gzFileHandle_;
  DumpLevel level_;
  DumpWriteCallbackBase* writeCallback_ = nullptr;
  DumpBookmarkBase* bookmark_ = nullptr;
  U32 maxListEntriesDumped_ = defaultMaxListEntriesDumped;
  mutable bool truncated_ = false;
  mutable U32 currentLineNum_ = 0;  // newlines written so far
  mutable bool bufEndsWithNewLine_ = false;
  bool dumpDuplicates_ = false;
  bool dumpLineNumbers_ = false;
  bool exitOnWriteError_ = false;
  mutable std::map<const void*, U32> dumpedObjMap_;  // object -> its first line (1-based)
  U32 dumpBufSize_ = defaultDumpBufSize;
  std::unique_ptr<char[]> buf_;  // dumpBufSize_ bytes
};

Ptr<DumpContext> dumpContextFactory(unsigned fd, gzFile gz, DumpLevel level);

// A sink for dumps that go neither to a descriptor nor to a gzip stream.
class DumpWriteCallbackBase {
 public:
  virtual ~DumpWriteCallbackBase() = default;
  // Consumes `length` bytes; returns the number written, 0 or less on failure.
  virtual int write(const void* buffer, U32 length);
};

// State of a dump that can be resumed later; dumpers derive their own.
class DumpBookmarkBase {
 public:
  virtual ~DumpBookmarkBase() = default;
  bool disableYielding() const { return disableYielding_; }
  void disableYieldingIs(bool v) { disableYielding_ = v; }

 private:
  bool disableYielding_ = false;
};

inline bool DumpContext::yieldingEnabled() const { return bookmark_ && !bookmark_->disableYielding(); }

// printf into the dump; a null context writes to standard output.
void objDumpPrintf(const Ptr<const DumpContext>& dumpCtx, const char* fmt, ...)
    __attribute__((format(printf, 2, 3)));

// Writes the process's trace ring (platform/Rivlog.h) into the dump, at most
// maxListEntriesDumped records, the newest; marks the context truncated when
// older ones are left out. A null context writes to standard output.
void rivlogDump(const Ptr<const DumpContext>& dumpCtx);

// Opens `path` for a dump. Ordinary files (and missing ones, created with
// mode 0644) are opened for appending and *append is set true; pipes,
// character devices and sockets are opened read-write and *append is set
// false. Returns -1 after printing "Cannot open <path>, error <errno>".
int openDumpFile(const char* path, bool* append);
// As openDumpFile, wrapped in a gzip stream (level 9, Huffman only); an
// appended file gets a further gzip member. Null on failure.
gzFile openCompressedDumpFile(const char* path);
void closeCompressedDumpFile(gzFile gz);

// Opens a fresh gzip dump (level 9, Huffman only) named `name` inside the
// directory `dir`, for dumps whose file name comes from an operator: nothing
// outside `dir` can be reached and nothing but the process's own dump files
// can be overwritten.
// - `name` must be a plain file name: not empty, no '/', no NUL, not "." or
//   ".."; else null with errno EINVAL.
// - `dir` itself must not be a symbolic link (errno ELOOP or ENOTDIR).
// - The file is created with mode 0644 if it does not exist. An existing
//   entry is truncated only if it is a regular file with a single link owned
//   by the process's effective uid; a symbolic link gives null with errno
//   ELOOP, anything else null with errno EPERM. Refused entries are never
//   opened, followed or changed.
// Prints nothing: the caller turns errno into its own reply.
gzFile openCompressedDumpFileInDir(const std::string& dir, const std::string& name);

// The type name without namespace qualifiers: the text after the last colon.
const char* objDumpSanitizeTypeName(const char* name);

}  // namespace Olk
