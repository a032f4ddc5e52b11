// The shell-free command tokenizer against a second, independent reading of
// its rules: the same arguments for every accepted command, the same
// std::invalid_argument text for every refused one, and no other outcome.
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Olk/ProcSysUtils.h"

namespace {

struct Outcome {
  std::vector<std::string> args;
  std::string error;  // empty when the command was accepted
  bool operator==(const Outcome&) const = default;
};

std::string describe(const Outcome& o) {
  if (!o.error.empty()) return "error \"" + o.error + "\"";
  std::string s = "args";
  for (const std::string& a : o.args) s += " [" + a + "]";
  return s;
}

// Characters through which a shell would redirect, pipe, chain or expand.
bool special(char c) { return std::string("~`&*()|;<>").find(c) != std::string::npos; }

Outcome refused(const std::string& error) { return Outcome{{}, error}; }

// The rules, one character at a time: a blank delimiter outside quotes,
// else the open quote character.
Outcome model(const std::string& cmd) {
  Outcome out;
  std::string arg;
  bool argExists = false;  // an empty quoted argument still counts
  char delimiter = ' ';
  for (size_t i = 0; i < cmd.size(); ++i) {
    char c = cmd[i];
    if (c == '\\' && delimiter != '\'') {
      if (i + 1 == cmd.size()) {
        return refused("Unsupported trailing backslash used in Olk::run command: " + cmd);
      }
      arg += cmd[++i];
    } else if (c == ' ' && delimiter == ' ') {
      if (!arg.empty() || argExists) out.args.push_back(arg);
      arg.clear();
      argExists = false;
    } else if (c == delimiter) {
      delimiter = ' ';
      if (arg.empty()) argExists = true;
    } else if ((c == '"' || c == '\'') && delimiter == ' ') {
      delimiter = c;
    } else if (special(c) && delimiter == ' ') {
      return refused(std::string("Unsupported special character ") + c + " used in Olk::run command: " + cmd);
    } else {
      arg += c;
    }
  }
  if (delimiter != ' ') {
    return refused(std::string("Unmatched delimiter ") + delimiter + " used in Olk::run command: " + cmd);
  }
  if (!arg.empty() || argExists) out.args.push_back(arg);
  return out;
}

Outcome library(const std::string& cmd) {
  Outcome out;
  try {
    out.args = Olk::tokenizeShellCommand(cmd.c_str());
  } catch (const std::invalid_argument& e) {
    out.error = e.what();
  }
  return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The command is a C string: it ends at the first NUL.
  std::string cmd(reinterpret_cast<const char*>(data), size);
  cmd = cmd.substr(0, cmd.find('\0'));
  Outcome expected = model(cmd), got = library(cmd);
  FUZZ_CHECK(got == expected, "command [" + cmd + "]: expected " + describe(expected) + ", got " + describe(got));
  return 0;
}
