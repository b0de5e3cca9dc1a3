#include "bsp/log/ini.h"

#include <cstdlib>
#include <stdexcept>

namespace ini {
namespace {

constexpr char kSeparator = '=';
constexpr char kEscape = '\\';
constexpr char kCommentPrefixes[] = {'#', ';'};

// Cuts the line at the first unescaped prefix and drops the escape of the escaped ones before it.
// One pass, so that a long line of escapes costs no more than its length.
void EraseComment(char prefix, std::string& line) {
  size_t kept = 0;
  for (const char c : line) {
    if (c != prefix) {
      line[kept++] = c;
    } else if (kept > 0 && line[kept - 1] == kEscape) {
      line[kept - 1] = c;
    } else {
      break;
    }
  }
  line.resize(kept);
}

[[noreturn]] void Fail(int number, const std::string& fault) {
  throw std::logic_error("l." + std::to_string(number) + ": ini parsing failed, " + fault);
}

detail::Line ParseSection(const std::string& text, int number) {
  const size_t end = text.find(']');
  if (end == std::string::npos) Fail(number, "section not closed");
  if (end == 1) Fail(number, "section is empty");
  return {detail::Line::kSection, text.substr(1, end - 1), std::string()};
}

detail::Line ParseField(const std::string& text, int number) {
  const size_t separator = text.find(kSeparator);
  if (separator == std::string::npos) {
    Fail(number, std::string("no '") + kSeparator + "' found");
  }
  detail::Line line = {detail::Line::kField, text.substr(0, separator), text.substr(separator + 1)};
  trim(line.name);
  trim(line.value);
  return line;
}

}  // namespace

const char* whitespaces() { return " \t\n\r\f\v"; }

const char* indents() { return " \t"; }

void trim(std::string& text) {
  const size_t last = text.find_last_not_of(whitespaces());
  text.resize(last == std::string::npos ? 0 : last + 1);
  text.erase(0, text.find_first_not_of(whitespaces()));
}

bool strToLong(const std::string& text, long& value) {
  for (const int base : {10, 8, 16}) {
    char* end = nullptr;
    value = strtol(text.c_str(), &end, base);
    if (end == text.c_str() + text.size()) return true;
  }
  return false;
}

void Convert<int>::decode(const std::string& text, int& value) {
  long number = 0;
  if (!strToLong(text, number)) throw std::invalid_argument("field is not an int");
  value = static_cast<int>(number);
}

void Convert<std::string>::decode(const std::string& text, std::string& value) { value = text; }

void Convert<std::string>::encode(const std::string& value, std::string& text) { text = value; }

detail::Line detail::ParseLine(std::string text, int number, bool has_section) {
  for (const char prefix : kCommentPrefixes) EraseComment(prefix, text);
  trim(text);
  if (text.empty()) return {};
  if (text[0] == '[') return ParseSection(text, number);
  if (!has_section) {
    Fail(number, "field has no section or ini file in use by another application");
  }
  return ParseField(text, number);
}

}  // namespace ini
