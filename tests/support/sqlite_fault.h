// System calls of SQLite that fail when a test says so. In one source file of a program.
#ifndef BSP_TESTS_SUPPORT_SQLITE_FAULT_H_
#define BSP_TESTS_SUPPORT_SQLITE_FAULT_H_

#include <fcntl.h>
#include <sqlite3.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace test {

// While it exists, the n-th call of this kind fails, and with `is_lasting` all from there on.
class SqliteFault {
 public:
  enum Kind { kRead, kWrite, kTruncate, kOpen, kKinds };

  SqliteFault(Kind kind, int n, int error, bool is_lasting) {
    Install();
    kind_ = kind;
    left_ = n;
    error_ = error;
    is_lasting_ = is_lasting;
    hits_ = 0;
  }
  ~SqliteFault() { kind_ = kKinds; }

  static bool was_hit() { return hits_ != 0; }

 private:
  static bool Fails(Kind kind) {
    if (kind != kind_ || (left_ > 0 && --left_ > 0)) return false;
    if (hits_ != 0 && !is_lasting_) return false;
    ++hits_;
    errno = error_;
    return true;
  }
  static ssize_t Pread(int fd, void* data, size_t size, off_t at) {
    return Fails(kRead) ? -1 : pread(fd, data, size, at);
  }
  static ssize_t Read(int fd, void* data, size_t size) {
    return Fails(kRead) ? -1 : read(fd, data, size);
  }
  static ssize_t Pwrite(int fd, const void* data, size_t size, off_t at) {
    return Fails(kWrite) ? -1 : pwrite(fd, data, size, at);
  }
  static ssize_t Write(int fd, const void* data, size_t size) {
    return Fails(kWrite) ? -1 : write(fd, data, size);
  }
  static int Truncate(int fd, off_t size) { return Fails(kTruncate) ? -1 : ftruncate(fd, size); }
  static int Open(const char* path, int flags, int mode) {
    return Fails(kOpen) ? -1 : open(path, flags, mode);
  }

  template <typename Function>
  static void Set(const char* name, Function function) {
    sqlite3_vfs* vfs = sqlite3_vfs_find(nullptr);
    vfs->xSetSystemCall(vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(function));
  }
  static void Install() {
    for (const char* name : {"pread", "pread64"}) Set(name, Pread);
    for (const char* name : {"pwrite", "pwrite64"}) Set(name, Pwrite);
    Set("read", Read);
    Set("write", Write);
    Set("ftruncate", Truncate);
    Set("open", Open);
  }

  inline static Kind kind_ = kKinds;
  inline static int left_ = 0;
  inline static int error_ = 0;
  inline static bool is_lasting_ = false;
  inline static int hits_ = 0;
};

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_SQLITE_FAULT_H_
