#include "bsp/util/proc_util.h"

#include <sys/syscall.h>
#include <unistd.h>

namespace bsp {

// By the system call: glibc has no wrapper before 2.30.
pid_t ProcUtil::GetTid() { return static_cast<pid_t>(syscall(SYS_gettid)); }

}  // namespace bsp
