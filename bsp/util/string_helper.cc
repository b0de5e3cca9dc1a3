#include "bsp/util/string_helper.h"

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "bsp/base/error.h"

namespace bsp {
namespace {

template <typename Number>
Number ToNumber(const std::string& text, Number default_value) {
  // from_chars takes a leading minus, which is no digit here.
  if (text.empty() || text[0] == '-') return default_value;
  Number value = 0;
  const char* end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value, 10);
  return result.ec == std::errc() && result.ptr == end ? value : default_value;
}

}  // namespace

std::string StringHelper::Format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = MSError::FormatString(fmt, args);
  va_end(args);
  return text;
}

std::vector<std::string> StringHelper::Split(const std::string& text,
                                             const std::string& delimiter) {
  std::vector<std::string> pieces;
  if (text.empty() || delimiter.empty()) return pieces;
  size_t begin = 0;
  for (size_t hit = text.find(delimiter); hit != std::string::npos;
       hit = text.find(delimiter, begin)) {
    pieces.push_back(text.substr(begin, hit - begin));
    begin = hit + delimiter.size();
  }
  pieces.push_back(text.substr(begin));
  return pieces;
}

unsigned long StringHelper::Copy(char* dst, unsigned long dst_size, const char* src) {
  if (dst == nullptr || src == nullptr || dst_size == 0 || src[0] == '\0') return 0;
  const unsigned long length = strnlen(src, dst_size - 1);
  memcpy(dst, src, length);
  dst[length] = '\0';
  return length;
}

int StringHelper::Compare(const char* a, int a_length, const char* b, int b_length) {
  if (a == nullptr || b == nullptr || a_length <= 0 || b_length <= 0) return -1;
  return memcmp(a, b, static_cast<size_t>(std::min(a_length, b_length)));
}

int StringHelper::ToInt32(const std::string& text, int default_value) {
  return ToNumber<int>(text, default_value);
}

long StringHelper::ToInt64(const std::string& text, long default_value) {
  return ToNumber<long>(text, default_value);
}

}  // namespace bsp
