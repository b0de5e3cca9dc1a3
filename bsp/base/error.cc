#include "bsp/base/error.h"

#include <cstdio>
#include <utility>
#include <vector>

MSError::MSError(std::string message, int code, std::shared_ptr<MSError> inner)
    : message_(std::move(message)), code_(code), inner_(std::move(inner)) {}

MSError::~MSError() = default;

std::shared_ptr<MSError> MSError::Newf(int code, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = FormatString(fmt, args);
  va_end(args);
  return std::make_shared<MSError>(std::move(text), code, nullptr);
}

std::shared_ptr<MSError> MSError::Wrapf(std::shared_ptr<MSError> inner, const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  std::string text = FormatString(fmt, args);
  va_end(args);
  const int code = inner ? inner->ErrorCode() : -1;
  return std::make_shared<MSError>(std::move(text), code, std::move(inner));
}

std::shared_ptr<MSError> MSError::SetTracePoint(const char* file, int line) {
  trace_file_ = file != nullptr ? file : "";
  trace_line_ = line;
  return weak_from_this().lock();
}

int MSError::ErrorCode() const { return code_; }

std::shared_ptr<MSError> MSError::InnerError() const { return inner_; }

std::string MSError::Message() const {
  std::string texts;
  std::string places;
  size_t number = 0;
  for (const MSError* error = this; error != nullptr; error = error->inner_.get()) {
    if (!error->message_.empty()) {
      if (!texts.empty()) texts += ", ";
      texts += error->message_;
    }
    places += "  [" + std::to_string(++number) + "] " + error->trace_file_ + ":" +
              std::to_string(error->trace_line_) + " " + std::to_string(error->code_) + "\n";
  }
  if (!texts.empty() && texts.back() != '.') texts += '.';
  return texts + "\n" + places;
}

std::string MSError::FormatString(const char* fmt, va_list args) {
  if (fmt == nullptr) return std::string();
  va_list measure;
  va_copy(measure, args);
  const int length = vsnprintf(nullptr, 0, fmt, measure);
  va_end(measure);
  if (length < 0) return std::string();

  std::vector<char> text(static_cast<size_t>(length) + 2);
  va_list print;
  va_copy(print, args);
  const int printed = vsnprintf(text.data(), text.size(), fmt, print);
  va_end(print);
  return printed < 0 ? std::string() : std::string(text.data());
}
