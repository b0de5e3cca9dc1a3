#include "apps/bspctl/ctl.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "bsp/base/error.h"

namespace ctl {
namespace {

constexpr const char* kBold = "\033[1m";
constexpr const char* kRed = "\033[31m";
constexpr const char* kGreen = "\033[32m";
constexpr const char* kPlain = "\033[0m";

// Bytes of the UTF-8 sequence at the beginning of the text, 0 when it is none that a terminal may
// get: cut, overlong, a surrogate, or a control character other than line feed and tab.
size_t PrintableSequence(const char* text, size_t size) {
  const auto byte = [text](size_t i) { return static_cast<unsigned char>(text[i]); };
  const unsigned first = byte(0);
  if (first < 0x80) return std::isprint(byte(0)) != 0 || first == '\n' || first == '\t' ? 1 : 0;
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4 || length > size) return 0;
  unsigned code = first & (0x7fu >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0) != 0x80) return 0;
    code = code << 6 | (byte(i) & 0x3fu);
  }
  const unsigned least = length == 4 ? 0x10000 : length == 3 ? 0x800 : 0xa0;
  return code >= least && code <= 0x10ffff && (code < 0xd800 || code > 0xdfff) ? length : 0;
}

bool IsPrintable(const std::string& bytes) {
  for (size_t i = 0; i < bytes.size();) {
    const size_t length = PrintableSequence(bytes.data() + i, bytes.size() - i);
    if (length == 0) return false;
    i += length;
  }
  return true;
}

// Columns that a cell takes on the screen: its characters without the colour sequences.
size_t Width(const std::string& cell) {
  size_t width = 0;
  bool in_sequence = false;
  for (char c : cell) {
    if (c == '\033') in_sequence = true;
    const bool is_continued = (static_cast<unsigned char>(c) & 0xc0) == 0x80;
    if (!in_sequence && !is_continued) ++width;
    if (in_sequence && c == 'm') in_sequence = false;
  }
  return width;
}

}  // namespace

CLI::App* AddVerb(CLI::App* noun, Context* context, const std::string& name,
                  const std::string& text, std::function<int()> body) {
  CLI::App* verb = noun->add_subcommand(name, text);
  verb->add_flag("--json", context->json, "print JSON, one object a line for streams");
  verb->callback([context, body = std::move(body)] { context->run = body; });
  return verb;
}

int Fail(ExitCode code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  const std::string text = MSError::FormatString(fmt, args);
  va_end(args);
  fprintf(stderr, "bspctl: %s\n", text.c_str());
  return code;
}

std::string ToHex(const std::string& bytes) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  for (unsigned char byte : bytes) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 15];
  }
  return text;
}

bool FromHex(const std::string& text, std::string* bytes) {
  const bool all_digits = std::all_of(text.begin(), text.end(), [](char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) != 0;
  });
  if (!all_digits || text.size() % 2 != 0) return false;
  bytes->clear();
  for (size_t i = 0; i < text.size(); i += 2) {
    *bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return true;
}

std::string Readable(const std::string& bytes) {
  return IsPrintable(bytes) ? bytes : "0x" + ToHex(bytes);
}

std::string OneLine(const std::string& bytes) {
  std::string line = Readable(bytes);
  for (size_t i = 0; (i = line.find_first_of("\n\t", i)) != std::string::npos; i += 2) {
    line.replace(i, 1, line[i] == '\n' ? "\\n" : "\\t");
  }
  return line;
}

Json ToJson(const std::string& bytes) {
  return IsPrintable(bytes) ? Json{{"text", bytes}} : Json{{"hex", ToHex(bytes)}};
}

void PrintLine(const std::string& line) {
  puts(line.c_str());
  fflush(stdout);
}

void PrintJson(const Json& object) {
  PrintLine(object.dump(-1, ' ', false, Json::error_handler_t::replace));
}

bool IsTerminal() { return isatty(STDOUT_FILENO) == 1; }

std::string Paint(const std::string& text, Colour colour) {
  if (!IsTerminal()) return text;
  return (colour == Colour::kRed ? kRed : kGreen) + text + kPlain;
}

Table::Table(std::vector<std::string> head) {
  if (IsTerminal()) {
    for (std::string& cell : head) cell = kBold + cell + kPlain;
  }
  rows_.push_back(std::move(head));
}

void Table::AddRow(std::vector<std::string> cells) { rows_.push_back(std::move(cells)); }

void Table::Print() const {
  std::vector<size_t> widths;
  for (const auto& row : rows_) {
    widths.resize(std::max(widths.size(), row.size()));
    for (size_t i = 0; i < row.size(); ++i) widths[i] = std::max(widths[i], Width(row[i]));
  }
  for (const auto& row : rows_) {
    std::string line;
    for (size_t i = 0; i < row.size(); ++i) {
      line += row[i];
      if (i + 1 < row.size()) line += std::string(widths[i] - Width(row[i]) + 2, ' ');
    }
    puts(line.c_str());
  }
  fflush(stdout);
}

}  // namespace ctl
