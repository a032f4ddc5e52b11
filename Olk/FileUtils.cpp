#include "Olk/FileUtils.h"

#include <fcntl.h>
#include <glob.h>
#include <sys/stat.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <cstdio>

#include "platform/Exception.h"
#include "platform/Format.h"

namespace Olk {

namespace {

namespace fs = boost::filesystem;

bool statOrReport(const std::string& path, struct stat& st, bool reportErrors) {
  if (stat(path.c_str(), &st) == 0) return true;
  if (reportErrors) std::fprintf(stderr, "Error while trying stat for path %s\n", path.c_str());
  return false;
}

double seconds(const timespec& ts) { return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9; }

void reportWalkError(const boost::system::error_code& ec, const fs::path& entry) {
  std::fprintf(stderr, "boost::filesystem::recursive_directory_iterator threw exception: %s path: %s\n",
               ec.message().c_str(), entry.string().c_str());
}

bool canOpenDirectory(const fs::path& dir, boost::system::error_code& ec) {
  fs::directory_iterator probe(dir, ec);
  return !ec;
}

// A lock request over the whole file: from offset 0, length 0 meaning to the end.
struct flock wholeFile(short type) {
  struct flock fl {};
  fl.l_type = type;
  fl.l_whence = SEEK_SET;
  fl.l_start = 0;
  fl.l_len = 0;
  return fl;
}

}  // namespace

bool isDirPath(const std::string& path, bool& isDir, bool reportErrors) {
  struct stat st;
  if (!statOrReport(path, st, reportErrors)) return false;
  isDir = S_ISDIR(st.st_mode);
  return true;
}

bool getFileMtime(const std::string& path, double& t) {
  struct stat st;
  if (!statOrReport(path, st, true)) return false;
  t = seconds(st.st_mtim);
  return true;
}

bool getFileCtime(const std::string& path, double& t) {
  struct stat st;
  if (!statOrReport(path, st, true)) return false;
  t = seconds(st.st_ctim);
  return true;
}

bool getGlobResult(const std::string& pattern, std::vector<std::string>& out) {
  glob_t g{};
  int rc = glob(pattern.c_str(), GLOB_NOSORT, nullptr, &g);
  if (rc == 0) out.insert(out.end(), g.gl_pathv, g.gl_pathv + g.gl_pathc);
  globfree(&g);
  if (rc == GLOB_NOMATCH) {
    std::fprintf(stderr, "No matching paths found for pattern: %s\n", pattern.c_str());
  } else if (rc != 0) {
    std::fprintf(stderr, "Error while trying glob for pattern: %s\n", pattern.c_str());
  }
  return rc == 0;
}

void getFileTreeResult(const std::string& path, std::vector<std::string>& out) {
  boost::system::error_code ec;
  fs::file_status top = fs::status(path, ec);
  if (!fs::is_directory(top)) {
    if (!ec && fs::exists(top)) out.push_back(path);
    return;
  }
  fs::recursive_directory_iterator it(path, ec);
  if (ec) reportWalkError(ec, path);
  for (const fs::recursive_directory_iterator end; it != end;) {
    fs::path entry = it->path();
    fs::file_status st = it->status(ec);
    if (ec) {
      reportWalkError(ec, entry);
    } else if (fs::is_regular_file(st)) {
      out.push_back(entry.string());
    } else if (fs::is_directory(it->symlink_status(ec)) && !canOpenDirectory(entry, ec)) {
      // The iterator ends the whole walk when it cannot descend into a
      // directory (links to directories it does not enter): look first.
      reportWalkError(ec, entry);
      it.disable_recursion_pending();
    }
    it.increment(ec);
    if (ec) reportWalkError(ec, entry);
  }
}

void lock(int fd) {
  ZUM_ASSERT(fd > 0);
  struct flock fl = wholeFile(F_WRLCK);
  if (fcntl(fd, F_SETLKW, &fl) < 0) throw Zum::ErrnoException(errno, Zum::format("acquire blocking lock on fd %d failed", fd));
}

void unlock(int fd) {
  ZUM_ASSERT(fd > 0);
  struct flock fl = wholeFile(F_UNLCK);
  if (fcntl(fd, F_SETLK, &fl) < 0) throw Zum::ErrnoException(errno, Zum::format("unlock fd %d failed", fd));
}

bool locked(int fd) {
  ZUM_ASSERT(fd > 0);
  struct flock fl = wholeFile(F_WRLCK);
  return fcntl(fd, F_GETLK, &fl) == 0 && fl.l_type != F_UNLCK;
}

}  // namespace Olk
