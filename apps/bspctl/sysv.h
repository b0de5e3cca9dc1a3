// The kernel's own lists of System V segments and semaphore sets, which everybody may read, also
// where the objects themselves belong to another user.
#ifndef BSP_APPS_BSPCTL_SYSV_H_
#define BSP_APPS_BSPCTL_SYSV_H_

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "apps/bspctl/ctl.h"

namespace ctl {

struct SysvObject {
  int id;
  unsigned mode;
  int64_t size;      // bytes of a segment, semaphores of a set
  int64_t attached;  // processes; 0 for a set
  uid_t uid;         // of the owner
};

// Empty when there is none under this key.
std::optional<SysvObject> FindSegment(key_t key);
std::optional<SysvObject> FindSemaphores(key_t key);

// "0x66000000"
std::string KeyName(key_t key);

// The user's name, or the number when there is none.
std::string UserName(uid_t uid);

// Tells why the segment cannot be attached: `missing` with `code` when there is none, else whose it
// is, with kFailed.
int FailToAttach(key_t key, ExitCode code, const char* missing);

}  // namespace ctl

#endif  // BSP_APPS_BSPCTL_SYSV_H_
