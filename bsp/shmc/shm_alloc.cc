#include "bsp/shmc/shm_alloc.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace shmc {
namespace impl {

ShmAlloc::~ShmAlloc() = default;

void* ShmAlloc::Attach_ReadOnly(const std::string& name, size_t size, size_t* real_size) {
  return Attach(name, size, kAttachReadOnly, real_size);
}

void* ShmAlloc::Attach_ExclCreate(const std::string& name, size_t size, size_t* real_size) {
  return Attach(name, size, kAttachCreate | kAttachExcl, real_size);
}

void* ShmAlloc::Attach_ForceCreate(const std::string& name, size_t size, size_t* real_size) {
  void* addr = Attach_ExclCreate(name, size, real_size);
  if (addr != nullptr || last_errno() != kShmAllocExist) return addr;
  return Unlink(name) ? Attach_ExclCreate(name, size, real_size) : nullptr;
}

void* ShmAlloc::Attach_MayCreate(const std::string& name, size_t size, size_t* real_size,
                                 bool* created) {
  if (created != nullptr) *created = false;
  void* addr = Attach(name, size, 0, real_size);
  if (addr != nullptr || last_errno() != kShmAllocNotExist) return addr;
  addr = Attach_ExclCreate(name, size, real_size);
  if (addr != nullptr && created != nullptr) *created = true;
  return addr;
}

void* ShmAlloc::Attach_AutoCreate(const std::string& name, size_t size, int create_flags,
                                  size_t* real_size, bool* created) {
  if (created != nullptr) *created = false;
  void* addr = (create_flags & kCreateIfMissing) != 0
                   ? Attach_MayCreate(name, size, real_size, created)
                   : Attach(name, size, 0, real_size);
  if (addr != nullptr || last_errno() != kShmAllocSizeMismatch) return addr;
  if ((create_flags & kRecreateIfSizeMismatch) == 0) return nullptr;
  addr = Attach_ForceCreate(name, size, real_size);
  if (addr != nullptr && created != nullptr) *created = true;
  return addr;
}

void* SVIPCShmAlloc<false>::Attach(const std::string& name, size_t size, int flags,
                                   size_t* real_size) {
  int key = 0;
  if (!str2key(name, &key)) {
    set_last_errno(kShmAllocBadName);
    return nullptr;
  }
  const bool creates = (flags & kAttachCreate) != 0;
  int get_flags = 0640;
  if (creates) get_flags |= IPC_CREAT;
  if ((flags & kAttachExcl) != 0) get_flags |= IPC_EXCL;
  const int id = shmget(key, size, get_flags);
  if (id == -1) {
    set_last_errno(errno == EINVAL && !creates ? kShmAllocSizeMismatch : conv_errno());
    if (last_errno() == kShmAllocDenied) {
      Utils<void>::Log(kLogError, "ShmAlloc::Attach: %s: denied, %s\n", name.c_str(),
                       DescribeOwner(name).c_str());
    }
    return nullptr;
  }
  // With kAttachExcl alone it is known that the segment is ours and nobody else uses it yet.
  const bool is_made_here = creates && (flags & kAttachExcl) != 0;
  void* const addr = shmat(id, nullptr, (flags & kAttachReadOnly) != 0 ? SHM_RDONLY : 0);
  const bool is_attached = addr != reinterpret_cast<void*>(-1);
  shmid_ds state = {};
  if (!is_attached || (real_size != nullptr && shmctl(id, IPC_STAT, &state) == -1)) {
    const int saved = errno;
    set_last_errno(conv_errno());
    if (is_attached) shmdt(addr);                     // just attached: cannot fail
    if (is_made_here) shmctl(id, IPC_RMID, nullptr);  // as far as it goes
    errno = saved;
    return nullptr;
  }
  if (real_size != nullptr) *real_size = state.shm_segsz;
  return addr;
}

bool SVIPCShmAlloc<false>::Detach(void* addr, size_t /*size*/) {
  if (shmdt(addr) == 0) return true;
  set_last_errno(conv_errno());
  return false;
}

bool SVIPCShmAlloc<false>::Unlink(const std::string& name) {
  int key = 0;
  if (!str2key(name, &key)) {
    set_last_errno(kShmAllocBadName);
    return false;
  }
  const int id = shmget(key, 0, 0);
  if (id != -1 && shmctl(id, IPC_RMID, nullptr) == 0) return true;
  set_last_errno(conv_errno());
  return false;
}

bool SVIPCShmAlloc<false>::str2key(const std::string& name, int* key) {
  errno = 0;
  const long number = strtol(name.c_str(), nullptr, 0);
  if (errno != 0) return false;
  *key = static_cast<int>(static_cast<uint32_t>(number));
  return true;
}

ShmAllocErrno SVIPCShmAlloc<false>::conv_errno() {
  switch (errno) {
    case 0:
      return kShmAllocOk;
    case ENOENT:
      return kShmAllocNotExist;
    case EEXIST:
      return kShmAllocExist;
    case EINVAL:
      return kShmAllocInvalid;
    case EPERM:
    case EACCES:
      return kShmAllocDenied;
    default:
      return kShmAllocUnknown;
  }
}

// IPC_STAT needs the right to read the segment, which is just what is missing here; the kernel's
// list tells everybody.
std::string SVIPCShmAlloc<false>::DescribeOwner(const std::string& name) {
  const int saved = errno;
  std::string owner;
  int key = 0;
  FILE* list = str2key(name, &key) ? fopen("/proc/sysvipc/shm", "re") : nullptr;
  char line[256];
  while (list != nullptr && owner.empty() && fgets(line, sizeof line, list) != nullptr) {
    int found_key = 0;
    unsigned mode = 0;
    size_t size = 0;
    int creator = 0;
    unsigned uid = 0;
    if (sscanf(line, "%d %*d %o %zu %d %*d %*u %u", &found_key, &mode, &size, &creator, &uid) !=
        5) {
      continue;  // the heading
    }
    if (found_key != key) continue;
    char text[160];
    snprintf(text, sizeof text,
             "segment 0x%x of %zu bytes belongs to uid %u, mode %o, made by pid %d",
             static_cast<unsigned>(key), size, uid, mode & 0777, creator);
    owner = text;
  }
  if (list != nullptr) fclose(list);
  errno = saved;
  return owner;
}

}  // namespace impl
}  // namespace shmc
