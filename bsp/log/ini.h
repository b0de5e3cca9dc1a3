// Reader of INI files: sections of keys and text values.
//
// Line by line: comments go first, then outer whitespace. "[name]" opens or continues a section,
// "key = value" is a field of it, an empty line is passed over, all else is a failure. "#" and ";"
// start a comment anywhere in a line, also in a value, unless a backslash stands right before them.
// Names are case-sensitive, a repeated key replaces the earlier value, no value goes over several
// lines. Nothing here writes a file.
#ifndef BSP_LOG_INI_H_
#define BSP_LOG_INI_H_

#include <fstream>
#include <functional>
#include <istream>
#include <map>
#include <string>
#include <utility>

#include "bsp/base/macros.h"

namespace ini {

// Blank, tab, line feed, carriage return, form feed, vertical tab; and blank, tab.
BSP_EXPORT const char* whitespaces();
BSP_EXPORT const char* indents();

// Strips whitespaces() from both ends.
BSP_EXPORT void trim(std::string& text);

// The number of the whole text in base 10, else in base 8, else in base 16 (so "010" is ten, "1f"
// is 31); an empty text is 0. False when none fits; *value is then what strtol found last. A number
// beyond long is held to its nearest end.
BSP_EXPORT bool strToLong(const std::string& text, long& value);

// How a value is read from and written as text.
template <typename T>
struct Convert;

template <>
struct BSP_EXPORT Convert<int> {
  // By strToLong, cut to 32 bits. Throws std::invalid_argument "field is not an int".
  void decode(const std::string& text, int& value);
};

template <>
struct BSP_EXPORT Convert<std::string> {
  void decode(const std::string& text, std::string& value);
  void encode(const std::string& value, std::string& text);
};

// One value, held as text.
class IniField {
 public:
  IniField() = default;
  explicit IniField(std::string text, int line = 0) : text_(std::move(text)), line_(line) {}

  template <typename T>
  T as() const {
    T value{};
    Convert<T>().decode(text_, value);
    return value;
  }

  template <typename T>
  IniField& operator=(const T& value) {
    Convert<T>().encode(value, text_);
    return *this;
  }

  // Of the file that it was read from, counted from 1; 0 for a value from elsewhere.
  int line() const { return line_; }

 private:
  std::string text_;
  int line_ = 0;
};

namespace detail {

// What one line of a file turned out to be.
struct Line {
  enum Kind { kEmpty, kSection, kField } kind = kEmpty;
  std::string name;   // of the section, or the key
  std::string value;  // of a field
};

// Throws std::logic_error "l.<number>: ini parsing failed, <fault>".
BSP_EXPORT Line ParseLine(std::string text, int number, bool has_section);

}  // namespace detail

// Keys to values. Indexing enters an empty value, so test with find first.
template <typename Compare>
class IniSectionBase : public std::map<std::string, IniField, Compare> {};

// Section names to sections. Indexing enters an empty section, so test with find first.
//
// Threads: one at a time.
template <typename Compare>
class IniFileBase : public std::map<std::string, IniSectionBase<Compare>, Compare> {
 public:
  // Replaces all content by that of the file; nothing when it cannot be opened. Throws as decode.
  void load(const std::string& path) {
    std::ifstream is(path);
    decode(is);
  }

  // Replaces all content by what the stream holds. Throws std::logic_error with line number and
  // fault; what was read so far stays.
  void decode(std::istream& is) {
    this->clear();
    IniSectionBase<Compare>* section = nullptr;
    std::string text;
    for (int number = 1; !is.eof() && !is.fail(); ++number) {
      std::getline(is, text);
      const detail::Line line = detail::ParseLine(text, number, section != nullptr);
      if (line.kind == detail::Line::kSection) section = &(*this)[line.name];
      if (line.kind == detail::Line::kField) {
        (*section)[line.name] = IniField(line.value, number);
      }
    }
  }
};

using IniFile = IniFileBase<std::less<std::string>>;

}  // namespace ini

#endif  // BSP_LOG_INI_H_
