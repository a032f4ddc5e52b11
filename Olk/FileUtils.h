// File-system queries and whole-file advisory locks.
//
// Small synchronous helpers that keep no state. Each keeps one failure
// style: the stat and glob queries print what went wrong to standard error
// and answer false (so a caller can simply skip what it cannot see); the
// locks throw Zum::ErrnoException, because a lock that silently failed would
// let two agents write the same file.
//
// getFileTreeResult() walks a directory tree with Boost.Filesystem: an
// entry it cannot examine is reported on standard error and skipped, so one
// unreadable corner never hides the rest of the tree. Results are in
// directory order, never sorted; both listing functions append to `out`.
//
// The locks are POSIX record locks over the whole file: they belong to the
// process, so they never conflict with another lock of the same process and
// are released when the process closes any descriptor of the file.
#pragma once

#include <string>
#include <vector>

#include "Olk/Types.h"

namespace Olk {

// Sets `isDir` (following symbolic links) and answers true; answers false
// when the path cannot be examined, printing "Error while trying stat for
// path <path>" when `reportErrors` is set.
bool isDirPath(const std::string& path, bool& isDir, bool reportErrors);

// The modification (status-change) time in seconds, with nanoseconds as the
// fraction. On failure prints the stat error line and answers false.
bool getFileMtime(const std::string& path, double& t);
bool getFileCtime(const std::string& path, double& t);

// Appends every path matching `pattern`, unsorted, and answers true; with no
// match, or a glob error, prints the pattern and answers false with `out`
// unchanged.
bool getGlobResult(const std::string& pattern, std::vector<std::string>& out);

// Appends `path` itself when it exists and is not a directory; for a
// directory, appends every regular file below it (links to directories are
// not followed). A missing path appends nothing.
void getFileTreeResult(const std::string& path, std::vector<std::string>& out);

// Blocks until this process holds a write lock on the whole file; throws
// Zum::ErrnoException ("acquire blocking lock on fd <fd> failed") otherwise.
void lock(int fd);
// Releases the lock; throws Zum::ErrnoException ("unlock fd <fd> failed").
// Releasing a lock that is not held succeeds.
void unlock(int fd);
// True when another process holds a lock that conflicts with a whole-file
// write lock; false also when the query itself fails.
bool locked(int fd);

}  // namespace Olk
