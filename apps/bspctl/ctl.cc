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

bool IsPrintable(const std::string& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](char c) {
    return std::isprint(static_cast<unsigned char>(c)) != 0 || c == '\n' || c == '\t';
  });
}

// Columns that a cell takes on the screen: its bytes without the colour sequences.
size_t Width(const std::string& cell) {
  size_t width = 0;
  bool in_sequence = false;
  for (char c : cell) {
    if (c == '\033') in_sequence = true;
    if (!in_sequence) ++width;
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

Json ToJson(const std::string& bytes) {
  return IsPrintable(bytes) ? Json{{"text", bytes}} : Json{{"hex", ToHex(bytes)}};
}

void PrintLine(const std::string& line) {
  puts(line.c_str());
  fflush(stdout);
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
