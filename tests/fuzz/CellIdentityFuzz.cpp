// The cell identity files, written with fuzzed contents below a private
// root (the library's test hook stands it in for "/"), and read back.
//
// The first byte picks the fact (cell id, cell type, product, the two flags)
// and whether its file exists; the rest is the file's contents. Only the
// first 32 bytes of a file count. The model:
//   - a missing file gives the default: 42, "generic", false;
//   - cell type and product are the bytes as read;
//   - a flag is exactly TRUE or FALSE, anything else is refused;
//   - a cell id written plainly (decimal, 0x hexadecimal, 0 octal, nothing
//     else) gives its value; a file that is empty, holds a byte no number
//     can contain, or ends in white space (a trailing newline) is refused
//     with "/etc/cellid did not contain a valid cell id"; other texts (a
//     sign, leading blanks, a value past 16 bits) may go either way but
//     must not crash or throw anything else.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <optional>
#include <string>

#include "Cell/Cell.h"
#include "FuzzSupport.h"
#include "platform/Exception.h"

namespace {

constexpr size_t fileMax = 32;

struct Fact {
  const char* file;  // below /etc
  const char* env;   // must be unset, or it would win over the file
};

constexpr Fact facts[] = {
    {"cellid", "CELLID"},
    {"celltype", "CELLTYPE"},
    {"product", "PRODUCT"},
    {"electionMgrSupported", "ELECTIONMGRSUPPORTED"},
    {"cpuBmcMode", "CPUBMCMODE"},
};

// A private root with an etc/ directory, removed when the fuzzer exits (the
// name is never freed, so the exit handler can still use it).
const std::string& root() {
  static const std::string& dir = *new std::string([] {
    for (const Fact& f : facts) unsetenv(f.env);
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/olk-cell-fuzz.XXXXXX";
    FUZZ_CHECK(mkdtemp(pattern.data()) != nullptr, "cannot make a temporary directory");
    FUZZ_CHECK(mkdir((pattern + "/etc").c_str(), 0700) == 0, "cannot make etc/");
    std::atexit([] {
      for (const Fact& f : facts) unlink((root() + "/etc/" + f.file).c_str());
      rmdir((root() + "/etc").c_str());
      rmdir(root().c_str());
    });
    return pattern;
  }());
  return dir;
}

void writeFile(const std::string& path, const std::optional<std::string>& contents) {
  unlink(path.c_str());
  if (!contents) return;
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  FUZZ_CHECK(fd >= 0, "cannot write " + path);
  FUZZ_CHECK(write(fd, contents->data(), contents->size()) == static_cast<ssize_t>(contents->size()),
             "short write to " + path);
  close(fd);
}

// The value of a cell id written plainly, if it is one.
std::optional<unsigned long> plainNumber(const std::string& s) {
  if (s.empty()) return std::nullopt;
  size_t at = 0;
  int base = 10;
  const char* digits = "0123456789";
  if (s.size() > 2 && s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) {
    base = 16, at = 2, digits = "0123456789abcdefABCDEF";
  } else if (s[0] == '0') {
    base = 8, digits = "01234567";
  }
  if (s.find_first_not_of(digits, at) != std::string::npos) return std::nullopt;
  unsigned long v = 0;
  for (size_t i = at; i < s.size(); ++i) {
    const char c = s[i];
    const unsigned digit = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
    v = v * base + digit;
    if (v > 0xffff) return std::nullopt;
  }
  return v;
}

bool mustRefuseCellId(const std::string& s) {
  return s.empty() || std::isspace(static_cast<unsigned char>(s.back())) ||
         s.find_first_not_of("0123456789abcdefABCDEFxX+- \t\n\v\f\r") != std::string::npos;
}

void cellId(const std::optional<std::string>& contents) {
  const std::optional<std::string> text = contents ? std::optional(contents->substr(0, fileMax)) : std::nullopt;
  std::optional<Cell::CellId> got;
  try {
    got = Cell::cellId();
  } catch (const Zum::RangeException& e) {
    FUZZ_CHECK(std::string(e.what()) == "/etc/cellid did not contain a valid cell id", e.what());
  }
  if (!text) {
    FUZZ_CHECK(got == 42, "a missing /etc/cellid gives 42");
  } else if (std::optional<unsigned long> v = plainNumber(*text)) {
    FUZZ_CHECK(got == *v, "cell id " + *text + " read as " + (got ? std::to_string(*got) : "an error"));
  } else if (mustRefuseCellId(*text)) {
    FUZZ_CHECK(!got, "cell id file [" + *text + "] accepted as " + std::to_string(*got));
  }
  if (!got) return;
  // The same answer through a fresh Status, and the paths built on it.
  FUZZ_CHECK(Cell::statusFactory("fuzz")->cellId() == *got, "a fresh Status reads another cell id");
  FUZZ_CHECK(Cell::path("x") == "cell/" + std::to_string(*got) + "/x", "path() " + Cell::path("x"));
  FUZZ_CHECK(Cell::mountpath("x") == "cell/" + std::to_string(*got) + "*/x", "mountpath()");
}

void name(const std::optional<std::string>& contents, std::string (*read)()) {
  const std::string want = contents ? contents->substr(0, fileMax) : "generic";
  const std::string got = read();
  FUZZ_CHECK(got == want, "read [" + got + "], file holds [" + want + "]");
}

void flag(const std::optional<std::string>& contents, bool (*read)()) {
  const std::optional<std::string> text = contents ? std::optional(contents->substr(0, fileMax)) : std::nullopt;
  std::optional<bool> got;
  try {
    got = read();
  } catch (const Zum::Exception&) {
  }
  std::optional<bool> want = !text ? std::optional(false)
                             : *text == "TRUE" ? std::optional(true)
                             : *text == "FALSE" ? std::optional(false)
                                                : std::nullopt;
  FUZZ_CHECK(got == want, "flag file [" + text.value_or("missing") + "] read wrongly");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  OlkFuzz::FuzzInput in(data, size);
  const unsigned pick = in.u8();
  const Fact& fact = facts[(pick >> 1) % std::size(facts)];
  const std::optional<std::string> contents = pick & 1 ? std::nullopt : std::optional(in.rest());
  writeFile(root() + "/etc/" + fact.file, contents);
  Cell::testHookFileRootIs(root());  // also forgets what was read before

  switch ((pick >> 1) % std::size(facts)) {
    case 0: cellId(contents); break;
    case 1: name(contents, Cell::cellType); break;
    case 2: name(contents, Cell::product); break;
    case 3: flag(contents, Cell::electionMgrSupported); break;
    default: flag(contents, Cell::cpuBmcMode); break;
  }
  return 0;
}
