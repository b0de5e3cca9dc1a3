#include "bsp/base/c_boundary.h"

#include <cxxabi.h>

#include <exception>

#include "bsp/log/log.h"

namespace {

void LogThrown(const char* function, const char* what) {
  _log_debug(MOD_BSP, BSP_LEVEL_ERROR, BSP_FILE, function, __LINE__, "%s", what);
}

}  // namespace

// The unwinding of a thread is caught as a reference to nothing, by design of the runtime.
__attribute__((no_sanitize("undefined"))) int bsp::FailForC(const char* function, int result) {
  try {
    throw;
#ifdef __GLIBCXX__
  } catch (const abi::__forced_unwind&) {
    throw;
#endif
  } catch (const std::exception& exception) {
    LogThrown(function, exception.what());
  } catch (...) {
    LogThrown(function, "an exception that is no std::exception");
  }
  return result;
}
