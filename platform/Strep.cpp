#include "platform/Strep.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>

#include "platform/Format.h"

namespace Zum {

namespace {

String remainder(StrepIter cur, StrepIter end) {
  constexpr std::ptrdiff_t shown = 20;
  return String(cur, end - cur > shown ? cur + shown : end);
}

[[noreturn]] void expected(std::string_view what, StrepIter cur, StrepIter end) {
  throw RangeException("Expected " + String(what) + " at '" + remainder(cur, end) + "'");
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

void needString(StrepIter& cur, StrepIter end, std::string_view literal) {
  if (!skipString(cur, end, literal)) expected("\"" + String(literal) + "\"", cur, end);
}

bool skipString(StrepIter& cur, StrepIter end, std::string_view literal) {
  if (static_cast<std::size_t>(end - cur) < literal.size()) return false;
  if (!std::equal(literal.begin(), literal.end(), cur)) return false;
  cur += static_cast<std::ptrdiff_t>(literal.size());
  return true;
}

void needEnd(StrepIter cur, StrepIter end, std::string_view typeName) {
  if (cur != end) {
    throw RangeException("Trailing text after " + String(typeName) + ": '" + remainder(cur, end) + "'");
  }
}

U64 parseUnsigned(StrepIter& cur, StrepIter end, U64 hi, std::string_view typeName) {
  if (cur == end || !isDigit(*cur)) expected(String(typeName) + " digits", cur, end);
  U64 v = 0;
  for (; cur != end && isDigit(*cur); ++cur) {
    U64 digit = static_cast<U64>(*cur - '0');
    if (v > (hi - digit) / 10) throw RangeException(String(typeName) + " out of range");
    v = v * 10 + digit;
  }
  return v;
}

S64 parseSigned(StrepIter& cur, StrepIter end, S64 lo, S64 hi, std::string_view typeName) {
  bool negative = skipString(cur, end, "-");
  U64 limit = negative ? static_cast<U64>(-(lo + 1)) + 1 : static_cast<U64>(hi);
  U64 magnitude = parseUnsigned(cur, end, limit, typeName);
  return negative ? static_cast<S64>(0 - magnitude) : static_cast<S64>(magnitude);
}

String parseIdentifier(StrepIter& cur, StrepIter end) {
  StrepIter start = cur;
  while (cur != end && (std::isalnum(static_cast<unsigned char>(*cur)) || *cur == '_')) ++cur;
  if (cur == start) expected("a name", cur, end);
  return String(start, cur);
}

String valueToStrep(bool v) { return v ? "True" : "False"; }
String valueToStrep(U8 v) { return std::to_string(v); }
String valueToStrep(U16 v) { return std::to_string(v); }
String valueToStrep(U32 v) { return std::to_string(v); }
String valueToStrep(U64 v) { return std::to_string(v); }
String valueToStrep(S32 v) { return std::to_string(v); }
String valueToStrep(S64 v) { return std::to_string(v); }

String valueToStrep(double v) {
  if (std::isinf(v)) return v > 0 ? "inf" : "-inf";
  if (std::isnan(v)) return "nan";
  return format("%.17g", v);
}

String valueToStrep(const String& v) {
  String out = "'";
  for (unsigned char c : v) {
    switch (c) {
      case '\\': out += "\\\\"; break;
      case '\'': out += "\\'"; break;
      case '\n': out += "\\n"; break;
      case '\t': out += "\\t"; break;
      case '\r': out += "\\r"; break;
      default:
        if (c < 0x20 || c >= 0x7f) {
          out += format("\\x%02x", c);
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '\'';
  return out;
}

void sequenceToValue(StrepIter& cur, StrepIter end, bool* out) {
  if (skipString(cur, end, "True")) {
    *out = true;
  } else if (skipString(cur, end, "False")) {
    *out = false;
  } else {
    expected("True or False", cur, end);
  }
}

void sequenceToValue(StrepIter& cur, StrepIter end, U8* out) {
  *out = static_cast<U8>(parseUnsigned(cur, end, 0xff, "U8"));
}
void sequenceToValue(StrepIter& cur, StrepIter end, U16* out) {
  *out = static_cast<U16>(parseUnsigned(cur, end, 0xffff, "U16"));
}
void sequenceToValue(StrepIter& cur, StrepIter end, U32* out) {
  *out = static_cast<U32>(parseUnsigned(cur, end, 0xffffffffu, "U32"));
}
void sequenceToValue(StrepIter& cur, StrepIter end, U64* out) {
  *out = parseUnsigned(cur, end, std::numeric_limits<U64>::max(), "U64");
}
void sequenceToValue(StrepIter& cur, StrepIter end, S32* out) {
  *out = static_cast<S32>(parseSigned(cur, end, std::numeric_limits<S32>::min(),
                                      std::numeric_limits<S32>::max(), "S32"));
}
void sequenceToValue(StrepIter& cur, StrepIter end, S64* out) {
  *out = parseSigned(cur, end, std::numeric_limits<S64>::min(), std::numeric_limits<S64>::max(), "S64");
}

void sequenceToValue(StrepIter& cur, StrepIter end, double* out) {
  String text(cur, end);
  char* stop = nullptr;
  *out = std::strtod(text.c_str(), &stop);
  if (stop == text.c_str()) expected("a number", cur, end);
  cur += stop - text.c_str();
}

void sequenceToValue(StrepIter& cur, StrepIter end, String* out) {
  needString(cur, end, "'");
  String v;
  while (cur != end && *cur != '\'') {
    char c = *cur++;
    if (c != '\\') {
      v += c;
      continue;
    }
    if (cur == end) break;
    char e = *cur++;
    switch (e) {
      case 'n': v += '\n'; break;
      case 't': v += '\t'; break;
      case 'r': v += '\r'; break;
      case 'x': {
        if (end - cur < 2 || !std::isxdigit(static_cast<unsigned char>(cur[0])) ||
            !std::isxdigit(static_cast<unsigned char>(cur[1]))) {
          expected("two hex digits", cur, end);
        }
        v += static_cast<char>(std::stoi(String(cur, cur + 2), nullptr, 16));
        cur += 2;
        break;
      }
      default: v += e;
    }
  }
  needString(cur, end, "'");
  *out = std::move(v);
}

ValueStrepWriter::ValueStrepWriter(std::string_view typeName) {
  text_ = "Value('";
  text_.append(typeName);
  text_ += "', ** {";
}

void ValueStrepWriter::fieldName(std::string_view name) {
  if (!first_) text_ += ", ";
  first_ = false;
  text_ += '\'';
  text_.append(name);
  text_ += "': ";
}

String ValueStrepWriter::done() {
  text_ += "})";
  return std::move(text_);
}

ValueStrepReader::ValueStrepReader(StrepIter& cur, StrepIter end, std::string_view typeName)
    : cur_(cur), end_(end) {
  String piece = "Value('";
  piece.append(typeName);
  piece += "', ** {";
  needString(cur_, end_, piece);
}

void ValueStrepReader::fieldName(std::string_view name) {
  if (!first_) needString(cur_, end_, ", ");
  first_ = false;
  String piece = "'";
  piece.append(name);
  piece += "': ";
  needString(cur_, end_, piece);
}

void ValueStrepReader::done() { needString(cur_, end_, "})"); }

}  // namespace Zum
