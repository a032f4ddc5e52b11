#include "Olk/ProcSysUtils.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string_view>

#include "platform/Exception.h"
#include "platform/Format.h"
#include "platform/Netns.h"
#include "platform/Trace.h"

namespace Olk {

namespace {

Zum::TraceHandle& tr = Zum::traceHandle("ProcSysUtils");
constexpr int traceFailure = 3;
constexpr int traceAccess = 7;

// /proc/sys paths are short; anything longer than 127 characters is cut.
struct ProcSysPath {
  explicit ProcSysPath(const char* path) {
    std::strncpy(text, path, sizeof text - 1);
    text[sizeof text - 1] = '\0';
  }
  char text[128];
};

// Traces "<what> <path> : <error text>" and hands back the errno.
int failure(const char* what, const ProcSysPath& path) {
  int error = errno;
  ZUM_TRACE(tr, traceFailure) << what << path.text << " : " << std::strerror(error);
  return error;
}

// Runs `access` with the calling thread inside network namespace `nsName`.
template <class F>
int inNetNs(const char* nsName, F&& access) {
  if (!nsName || std::strcmp(nsName, Zum::DEFAULT_NS) == 0) return access();
  int fd = Zum::getns(CLONE_NEWNET);
  ZUM_ASSERT(fd >= 0);
  Zum::setnsByName(nsName, CLONE_NEWNET);
  int rc = access();
  setns(fd, CLONE_NEWNET);
  ZUM_ASSERT(close( fd ) == 0);
  return rc;
}

[[noreturn]] void refuse(const std::string& text) { throw std::invalid_argument(text); }

}  // namespace

int writeProcSys(const char* path, const char* value) {
  ProcSysPath p(path);
  ZUM_TRACE(tr, traceAccess) << "Writing " << value << " to " << p.text;
  int fd = open(p.text, O_WRONLY | O_CLOEXEC);
  if (fd < 0) return failure("Failed to open ", p);
  if (write(fd, value, std::strlen(value)) < 0) {
    int error = failure("Failed to write ", p);
    close(fd);
    return error;
  }
  close(fd);
  return 0;
}

int readProcSys(const char* path, char* buf, unsigned len) {
  ProcSysPath p(path);
  int fd = open(p.text, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return failure("Failed to open ", p);
  if (read(fd, buf, len) < 0) {
    int error = failure("Failed to read ", p);
    close(fd);
    return error;
  }
  close(fd);
  // Bounded by len: the buffer is the caller's and need not be terminated.
  ZUM_TRACE(tr, traceAccess) << "Read " << std::string_view(buf, strnlen(buf, len)) << " from " << p.text;
  return 0;
}

int writeProcSysInNetNs(const char* path, const char* value, const char* nsName) {
  return inNetNs(nsName, [&] { return writeProcSys(path, value); });
}

int readProcSysInNetNs(const char* path, char* buf, unsigned len, const char* nsName) {
  return inNetNs(nsName, [&] { return readProcSys(path, buf, len); });
}

std::vector<std::string> tokenizeShellCommand(const char* cmd) {
  static constexpr std::string_view special = "~`&*()|;<>";
  constexpr char blank = ' ';
  std::vector<std::string> args;
  std::string arg;
  bool argExists = false;  // set by an empty quotation, so "" yields an argument
  char delimiter = blank;  // the open quote character, or blank outside quotes
  for (const char* p = cmd; *p; ++p) {
    char c = *p;
    if (c == '\\' && delimiter != '\'') {
      if (!p[1]) refuse(Zum::format("Unsupported trailing backslash used in Olk::run command: %s", cmd));
      arg += *++p;
    } else if (c == blank && delimiter == blank) {
      if (!arg.empty() || argExists) args.push_back(std::move(arg));
      arg.clear();
      argExists = false;
    } else if (c == delimiter) {
      delimiter = blank;
      if (arg.empty()) argExists = true;
    } else if ((c == '"' || c == '\'') && delimiter == blank) {
      delimiter = c;
    } else if (delimiter == blank && special.find(c) != std::string_view::npos) {
      refuse(Zum::format("Unsupported special character %c used in Olk::run command: %s", c, cmd));
    } else {
      arg += c;
    }
  }
  if (delimiter != blank) refuse(Zum::format("Unmatched delimiter %c used in Olk::run command: %s", delimiter, cmd));
  if (!arg.empty() || argExists) args.push_back(std::move(arg));
  return args;
}

int maybeDevNull(int fd, int devNullFd) { return fd == -2 ? devNullFd : fd; }

int forkProcess(const char** argv, int stdinFd, int stdoutFd, int stderrFd, int deathSignal) {
  pid_t pid = fork();
  if (pid != 0) return pid;  // the parent, or a failed fork (-1)
  const int given[] = {stdinFd, stdoutFd, stderrFd};
  for (int target = 0; target < 3; ++target) {
    // dup2 closes the target first; a descriptor already in place stays.
    if (given[target] >= 0 && given[target] != target && dup2(given[target], target) < 0) return -1;
  }
  if (deathSignal >= 1) prctl(PR_SET_PDEATHSIG, deathSignal);
  // An empty command has no program name; execvp would dereference it.
  if (!argv[0]) return -1;
  execvp(argv[0], const_cast<char* const*>(argv));
  return -1;
}

int run(const char* cmd, int stdinFd, int stdoutFd, int stderrFd, int deathSignal) {
  std::vector<std::string> tokens = tokenizeShellCommand(cmd);
  std::vector<const char*> argv;
  for (const std::string& t : tokens) argv.push_back(t.c_str());
  argv.push_back(nullptr);

  int devNull = -1;
  if (stdinFd == -2 || stdoutFd == -2 || stderrFd == -2) {
    // Write-only even when it serves as standard input: the child's reads
    // then fail instead of seeing end of file, as established callers expect.
    devNull = open("/dev/null", O_WRONLY | O_CLOEXEC);
  }
  int pid = forkProcess(argv.data(), maybeDevNull(stdinFd, devNull), maybeDevNull(stdoutFd, devNull),
                        maybeDevNull(stderrFd, devNull), deathSignal);
  if (devNull >= 0) close(devNull);
  if (pid < 0) return -1;

  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return -1;
  }
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  if (WIFSIGNALED(status)) return -WTERMSIG(status);
  return -1;
}

}  // namespace Olk
