// Attaching to System V shared-memory segments by a textual name.
//
// A name is a number as strtol with base 0 reads it ("0x66000000"); its low 32 bits are the System
// V key. Segments belong to nobody: detaching never removes one, and they outlive all processes.
// Only Unlink removes, and nothing in the library calls it in normal work.
#ifndef BSP_SHMC_SHM_ALLOC_H_
#define BSP_SHMC_SHM_ALLOC_H_

#include <cstddef>
#include <string>

#include "bsp/base/macros.h"
#include "bsp/shmc/utils.h"

namespace shmc {
namespace impl {

// Outcome of the last attach, unlink or detach of an allocator object.
enum ShmAllocErrno {
  kShmAllocOk = 0,
  kShmAllocUnknown = 1,
  kShmAllocNotExist = 2,
  kShmAllocExist = 3,
  kShmAllocInvalid = 4,
  kShmAllocBadName = 5,      // the name is no number, or one above 64 bits
  kShmAllocDenied = 6,       // no permission
  kShmAllocSizeMismatch = 7  // the segment exists with a smaller size than asked
};

// Flags of Attach, a bit set.
enum AttachFlags { kAttachCreate = 1, kAttachExcl = 2, kAttachReadOnly = 4 };

// How segments are attached, whatever kind they are. An object is a short-lived temporary of one
// thread. errno keeps the value of the failing call, for Utils<void>::Perror.
class BSP_EXPORT ShmAlloc {
 public:
  virtual ~ShmAlloc();

  // The address, or null. `size`: the least size of an existing segment, the size of a new one.
  // *real_size: the size the segment has. Pointers may be null. A segment that was created and then
  // could not be attached is removed again.
  virtual void* Attach(const std::string& name, size_t size, int flags, size_t* real_size) = 0;
  virtual bool Detach(void* addr, size_t size) = 0;
  virtual bool Unlink(const std::string& name) = 0;
  virtual size_t AlignSize() = 0;

  void* Attach_ReadOnly(const std::string& name, size_t size, size_t* real_size);

  // Creates, and fails when the segment exists.
  void* Attach_ExclCreate(const std::string& name, size_t size, size_t* real_size);

  // As Attach_ExclCreate, but removes a segment that exists.
  void* Attach_ForceCreate(const std::string& name, size_t size, size_t* real_size);

  // Attaches, or creates what does not exist. Of two processes that race, the one that finds the
  // other's segment between its two steps fails with kShmAllocExist.
  void* Attach_MayCreate(const std::string& name, size_t size, size_t* real_size, bool* created);

  // As `create_flags` (CreateFlags) allows.
  void* Attach_AutoCreate(const std::string& name, size_t size, int create_flags, size_t* real_size,
                          bool* created);

  ShmAllocErrno last_errno() const { return last_errno_; }
  void set_last_errno(ShmAllocErrno value) { last_errno_ = value; }

 private:
  ShmAllocErrno last_errno_ = kShmAllocOk;
};

template <bool>
class SVIPCShmAlloc;

// System V segments of mode 0640. The only kind there is.
template <>
class BSP_EXPORT SVIPCShmAlloc<false> : public ShmAlloc {
 public:
  // When another user's segment denies the access, the log hook is told whose it is.
  void* Attach(const std::string& name, size_t size, int flags, size_t* real_size) override;
  bool Detach(void* addr, size_t size) override;
  bool Unlink(const std::string& name) override;
  size_t AlignSize() override { return 1; }

  // The System V key of a name; false when the number does not fit in 64 bits. Text behind the
  // number is not looked at; a name without any digit gives key 0, which is IPC_PRIVATE.
  static bool str2key(const std::string& name, int* key);

  // Never kShmAllocBadName nor kShmAllocSizeMismatch, which Attach and Unlink know themselves.
  static ShmAllocErrno conv_errno();

  // Who stands in the way: "segment 0x66000000 of 32768 bytes belongs to uid 1000, mode 640, made
  // by pid 321", also for a segment that we may not read. Empty when there is none. Keeps errno.
  static std::string DescribeOwner(const std::string& name);
};

}  // namespace impl
}  // namespace shmc

#endif  // BSP_SHMC_SHM_ALLOC_H_
