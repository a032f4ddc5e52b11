#include "Cell/Cell.h"

#include <fcntl.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <optional>

#include "platform/Exception.h"
#include "platform/Format.h"

namespace Cell {

namespace {

constexpr CellId defaultCellId = 42;
constexpr const char* defaultName = "generic";
constexpr std::size_t identityFileMax = 32;  // bytes read from an identity file

String& fileRoot() {
  static String root;
  return root;
}

Zum::Ptr<Status>& processStatus() {
  static Zum::Ptr<Status> status;
  if (!status) status = statusFactory("cellStatus");
  return status;
}

// The first bytes of identity file `file`, or nothing when it does not exist.
std::optional<String> readIdentityFile(const char* file) {
  String path = fileRoot() + file;
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == ENOENT) return std::nullopt;
    throw Zum::ErrnoException(errno, Zum::format("cannot open %s", path.c_str()));
  }
  char buf[identityFileMax];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof buf);
  } while (n < 0 && errno == EINTR);
  int error = errno;
  close(fd);
  if (n < 0) throw Zum::ErrnoException(error, Zum::format("cannot read %s", path.c_str()));
  return String(buf, static_cast<std::size_t>(n));
}

// The text of environment variable `env` if set, else of `file`; nothing
// when neither exists.
std::optional<String> lookup(const char* env, const char* file) {
  if (const char* value = std::getenv(env)) return String(value);
  return readIdentityFile(file);
}

// The whole text must be one non-negative number, in any C base. Parsed as
// 64 bits (not `long`), so 32- and 64-bit agents cut a wide number alike.
CellId parseCellIdFile(const String& text) {
  const char* begin = text.c_str();
  char* end = nullptr;
  long long id = std::strtoll(begin, &end, 0);
  if (end == begin || end != begin + text.size() || id < 0) {
    throw Zum::RangeException("/etc/cellid did not contain a valid cell id");
  }
  return static_cast<CellId>(id);
}

String lookupName(const char* env, const char* file) { return lookup(env, file).value_or(defaultName); }

bool lookupFlag(const char* env, const char* file) {
  std::optional<String> text = lookup(env, file);
  if (!text || *text == "FALSE") return false;
  if (*text == "TRUE") return true;
  const char* source = std::getenv(env) ? env : file;
  throw Zum::RangeException(Zum::format("%s did not contain TRUE or FALSE", source));
}

// The system name path templates refer to: this host's node name.
String systemName() {
  utsname u;
  return uname(&u) == 0 ? String(u.nodename) : String();
}

String cellPathText(int id) { return Zum::format("cell/%d", id); }

}  // namespace

CellId Status::cellId() const {
  if (cellId_ != 0) return cellId_;
  // A 0 is stored as "not known", so it is looked up again next time.
  if (const char* env = std::getenv("CELLID")) {
    cellIdIs(static_cast<CellId>(std::strtoull(env, nullptr, 10)));
  } else {
    std::optional<String> text = readIdentityFile("/etc/cellid");
    cellIdIs(text ? parseCellIdFile(*text) : defaultCellId);
  }
  return cellId_;
}

String Status::cellType() const {
  if (cellType_.empty()) cellTypeIs(lookupName("CELLTYPE", "/etc/celltype"));
  return cellType_;
}

String Status::product() const {
  if (product_.empty()) productIs(lookupName("PRODUCT", "/etc/product"));
  return product_;
}

bool Status::electionMgrSupported() const {
  if (!electionMgrSupportedInitialized_) {
    electionMgrSupportedIs(lookupFlag("ELECTIONMGRSUPPORTED", "/etc/electionMgrSupported"));
  }
  return electionMgrSupported_;
}

void Status::electionMgrSupportedIs(bool on) const {
  electionMgrSupported_ = on;
  electionMgrSupportedInitialized_ = true;
}

bool Status::cpuBmcMode() const {
  if (!cpuBmcModeInitialized_) cpuBmcModeIs(lookupFlag("CPUBMCMODE", "/etc/cpuBmcMode"));
  return cpuBmcMode_;
}

void Status::cpuBmcModeIs(bool on) const {
  cpuBmcMode_ = on;
  cpuBmcModeInitialized_ = true;
}

Zum::Ptr<Status> statusFactory(const Zum::Name& name) { return Zum::create<Status>(name); }

Zum::Ptr<ActiveCell> activeCellFactory(const Zum::Name& name) { return Zum::create<ActiveCell>(name); }

CellId cellId() { return processStatus()->cellId(); }
String cellType() { return processStatus()->cellType(); }
String product() { return processStatus()->product(); }
bool electionMgrSupported() { return processStatus()->electionMgrSupported(); }
bool cpuBmcMode() { return processStatus()->cpuBmcMode(); }

String path(const char* name, unsigned cell) {
  return Zum::format("cell/%u/%s", cell ? cell : unsigned{cellId()}, name);
}

String mountpath(const char* name, unsigned cell) {
  return Zum::format("cell/%u*/%s", cell ? cell : unsigned{cellId()}, name);
}

std::map<String, String> initializeCellPathTemplateDict() {
  int id = cellId();
  int peer = 3 - id;  // cells are numbered 1 and 2
  return {
      {"%cellId", Zum::format("%d", id)},
      {"%cellPath", cellPathText(id)},
      {"%peerCellId", Zum::format("%d", peer)},
      {"%peerCellPath", cellPathText(peer)},
      {"%sysname", systemName()},
  };
}

void testHookFileRootIs(const String& root) {
  fileRoot() = root;
  processStatus() = nullptr;
}

}  // namespace Cell
