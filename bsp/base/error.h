// MSError: the error value of the library. Null is success.
#ifndef BSP_BASE_ERROR_H_
#define BSP_BASE_ERROR_H_

#include <cstdarg>
#include <cstdint>
#include <memory>
#include <string>

#include "bsp/base/macros.h"

// An operation that can fail returns std::shared_ptr<MSError> by value: null on success. An error
// may wrap an inner one and so tell the road it took. -1 is the general failure code.
//
// Threads: none of its own; one thread builds and annotates an error, then hands it on.
class BSP_EXPORT MSError : public std::enable_shared_from_this<MSError> {
 public:
  MSError(std::string message, int code, std::shared_ptr<MSError> inner);
  virtual ~MSError();

  // A new error; the text has no length limit.
  static std::shared_ptr<MSError> Newf(int code, const char* fmt, ...) BSP_PRINTF(2, 3);

  // A new error around `inner`, with the code of `inner`; -1 when `inner` is null.
  static std::shared_ptr<MSError> Wrapf(std::shared_ptr<MSError> inner, const char* fmt, ...)
      BSP_PRINTF(2, 3);

  // Notes where the error arose; the last call counts. Returns this object, or null when no shared
  // pointer owns it. A null file counts as empty.
  std::shared_ptr<MSError> SetTracePoint(const char* file, int line);

  virtual int ErrorCode() const;
  virtual std::shared_ptr<MSError> InnerError() const;

  // The whole chain as text: first the non-empty texts, outermost first, joined by ", " and closed
  // by a point; then a line "  [n] file:line code" for each error of the chain.
  std::string Message() const;

  // The formatted text; empty when the formatter fails. Does not consume `args`.
  static std::string FormatString(const char* fmt, va_list args) BSP_PRINTF(1, 0);

 private:
  std::string message_;
  int32_t code_;
  std::string trace_file_;  // empty until SetTracePoint
  int32_t trace_line_ = 0;
  std::shared_ptr<MSError> inner_;
};

// The usual last line of a failure site: a new or wrapping error with the place of the call.
#define BSP_NEW_ERROR(code, ...) \
  (::MSError::Newf((code), __VA_ARGS__)->SetTracePoint(BSP_FILE, __LINE__))
#define BSP_WRAP_ERROR(inner, ...) \
  (::MSError::Wrapf((inner), __VA_ARGS__)->SetTracePoint(BSP_FILE, __LINE__))

#endif  // BSP_BASE_ERROR_H_
