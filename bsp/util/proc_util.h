// Facts about the calling thread.
#ifndef BSP_UTIL_PROC_UTIL_H_
#define BSP_UTIL_PROC_UTIL_H_

#include <sys/types.h>

#include "bsp/base/macros.h"

namespace bsp {

class BSP_EXPORT ProcUtil {
 public:
  // The calling thread's kernel thread id.
  static pid_t GetTid();
};

}  // namespace bsp

#endif  // BSP_UTIL_PROC_UTIL_H_
