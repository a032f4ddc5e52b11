// Kernel tunables under /proc/sys, and starting helper programs without a
// shell.
//
// Tunables: writeProcSys()/readProcSys() move one value as text and report a
// failure as the errno of the failing call (they never throw); the InNetNs
// variants do the same inside a named network namespace, switching only the
// calling thread and only for the duration of the call. Paths longer than
// 127 characters are cut to 127. readProcSys() does not terminate the
// buffer: zero it and pass one less than its size to get a string.
//
// Commands: run() splits a one-line command with tokenizeShellCommand(),
// which knows quotes and backslashes but refuses every character through
// which a shell would redirect, pipe, chain or glob, so a command assembled
// from configuration can never become shell code. The program is started by
// fork and exec (searched on PATH) and waited for; run() blocks its thread
// until the child ends. A child whose exec fails returns -1 from run() in
// the child process itself: the caller must then leave at once (_exit).
//
// All functions are synchronous and keep no state.
#pragma once

#include <string>
#include <vector>

#include "Olk/Types.h"

namespace Olk {

// Writes strlen(value) bytes to `path` in one write(); a short write is not
// detected. Returns 0, or the errno of the failing open or write.
int writeProcSys(const char* path, const char* value);
// Reads up to `len` bytes of `path` into `buf` with one read(), leaving the
// rest of `buf` untouched. Returns 0, or the errno of the failing open or read.
int readProcSys(const char* path, char* buf, unsigned len);
// As writeProcSys()/readProcSys(), inside the network namespace `nsName`
// (null or Zum::DEFAULT_NS: the caller's own, without switching). Whether the
// switch worked is not checked: for a name that does not exist, or without
// the privilege to switch, the caller's namespace is used. The thread is back
// in its own namespace on return.
int writeProcSysInNetNs(const char* path, const char* value, const char* nsName);
int readProcSysInNetNs(const char* path, char* buf, unsigned len, const char* nsName);

// Splits `cmd` into arguments. Only the blank separates (a tab is text);
// quotes group and join with adjacent text; a backslash outside single
// quotes takes the next character literally; "" and '' give an empty
// argument. Throws std::invalid_argument for any of ~`&*()|;<> outside
// quotes, an unclosed quote, or a trailing backslash.
std::vector<std::string> tokenizeShellCommand(const char* cmd);

// Runs `cmd` and waits for it. Each fd argument becomes the child's fd 0, 1
// or 2: negative inherits the caller's, -2 is the null device (opened
// write-only even as standard input, so reads from it fail rather than see
// end of file). `deathSignal` >= 1 is sent to the child if this process
// dies first. Returns the exit code (0-255), minus the signal number for a
// child killed by a signal, or -1 when fork or waitpid failed (and, in the
// child, when exec failed). Refused command text throws as
// tokenizeShellCommand() and starts nothing.
int run(const char* cmd, int stdinFd = -1, int stdoutFd = -1, int stderrFd = -1, int deathSignal = 0);

// Forks; the child puts the non-negative fds on 0, 1 and 2 in that order,
// sets the death signal and execs argv (NULL-terminated; an empty argv makes
// exec fail). Returns the child's pid in the parent and -1 when fork failed;
// the child returns -1 when dup2 or exec failed and must then leave at once.
// Descriptors not named are inherited; nothing else is closed.
int forkProcess(const char** argv, int stdinFd, int stdoutFd, int stderrFd, int deathSignal);

// `devNullFd` when `fd` is -2, otherwise `fd`.
int maybeDevNull(int fd, int devNullFd);

}  // namespace Olk
