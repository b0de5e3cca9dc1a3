// One attachment of a shared-memory segment.
#ifndef BSP_SHMC_SHM_HANDLE_H_
#define BSP_SHMC_SHM_HANDLE_H_

#include <cstddef>
#include <cstdint>
#include <string>

#include "bsp/shmc/shm_alloc.h"
#include "bsp/shmc/utils.h"

namespace shmc {

// T: the type laid at offset 0 of the segment. Detached or attached; an attached handle refuses a
// second Init until Reset. Never removes a segment, and lays out no contents: a new segment is
// zero-filled.
//
// Threads: one during Init and Reset; what the segment holds is the owner's matter.
template <typename T, typename Alloc>
class ShmHandle {
 public:
  ShmHandle() = default;
  ShmHandle(const ShmHandle&) = delete;
  ShmHandle& operator=(const ShmHandle&) = delete;
  ~ShmHandle() { Detach(); }

  // Attaches for reading and writing. `size`: bytes of a new segment, least bytes of an existing
  // one. `create_flags`: CreateFlags. False when attached already, silently, or on failure, which
  // is logged with the text of errno.
  bool InitForWrite(const std::string& name, size_t size, int create_flags) {
    if (is_initialized()) return false;
    Alloc alloc;
    ptr_ = static_cast<T*>(
        alloc.Attach_AutoCreate(name, size, create_flags, &size_, &is_newly_created_));
    is_writable_ = is_initialized();
    return Finish(name, "ShmHandler::InitForWrite: %s\n");
  }

  // The same with a read-only mapping of a segment that exists: a write to it is a fault.
  bool InitForRead(const std::string& name, size_t size) {
    if (is_initialized()) return false;
    Alloc alloc;
    ptr_ = static_cast<T*>(alloc.Attach_ReadOnly(name, size, &size_));
    return Finish(name, "ShmHandler::InitForRead: %s\n");
  }

  void Reset() {
    Detach();
    name_.clear();
    ptr_ = nullptr;
    size_ = 0;
    is_newly_created_ = false;
    is_writable_ = false;
  }

  bool is_initialized() const { return ptr_ != nullptr; }

  // This handle created the segment: the caller must lay out its contents.
  bool is_newly_created() const { return is_newly_created_; }

  // Attached by InitForWrite.
  bool is_writable() const { return is_writable_; }

  // Null when not attached.
  T* ptr() { return ptr_; }
  const T* ptr() const { return ptr_; }
  T* operator->() { return ptr_; }
  const T* operator->() const { return ptr_; }

  // Real size of the segment in bytes, at least the size asked for.
  size_t size() const { return size_; }

  // Empty when not attached.
  const std::string& name() const { return name_; }

  // The segment has exactly this size, rounded up as the allocator rounds. 64 bits: what a damaged
  // head asks for must not be cut to a size that fits.
  bool CheckSize(uint64_t expected) const {
    return impl::Utils<void>::RoundAlign<uint64_t>(expected, Alloc().AlignSize()) == size_;
  }

 private:
  bool Finish(const std::string& name, const char* failure) {
    if (!is_initialized()) {
      size_ = 0;
      impl::Utils<void>::Log(kLogError, failure, impl::Utils<void>::Perror());
      return false;
    }
    name_ = name;
    return true;
  }

  void Detach() {
    if (is_initialized()) Alloc().Detach(ptr_, size_);  // nothing is left to do about a failure
  }

  std::string name_;
  size_t size_ = 0;
  bool is_newly_created_ = false;
  T* ptr_ = nullptr;
  bool is_writable_ = false;
};

}  // namespace shmc

#endif  // BSP_SHMC_SHM_HANDLE_H_
