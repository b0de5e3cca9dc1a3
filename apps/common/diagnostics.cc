// The log of a host program.
//
// Standard error may be a pipe that nobody reads, a full disk, a stopped terminal. A server that
// writes there itself stands still with it, and all its clients. So the lines go into a ring of
// fixed size, and one thread writes them; nobody else touches standard error. The descriptor stays
// blocking: O_NONBLOCK belongs to the open file, which is the shell's as well as ours.
//
// (1) Whoever logs holds the mutex for the copy of a line, the writer for that of a chunk; nothing
//     that can wait is done under it. Nothing is allocated after the start.
// (2) A line that does not fit is counted, and the count is told as soon as half of the ring is
//     free: every line is written, told as a repeat (line_gate.h) or told as lost, exactly once.
// (3) Chunks end at the end of a line and are at most PIPE_BUF long, so that a pipe takes each in
//     one piece, however many processes write to it.
// (4) The end waits for the writer for a bounded time. A writer that hangs in its system call is
//     left behind and dies with the process, so the object is never destroyed.
//
// Gravest lines (emerg to crit) and debug lines pass the gate: the former are too dear to be folded
// into a count, and whoever asks for the latter wants each. Only they can fill the ring quickly, so
// debug lines may take three quarters of it at most.
#include "apps/common/diagnostics.h"

#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>

#include "apps/common/line_gate.h"
#include "apps/common/routine_lines.h"
#include "bsp/log/log.h"
#include "bsp/util/time_util.h"

namespace app {
namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kRingBytes = size_t{256} << 10;
constexpr size_t kChunkBytes = PIPE_BUF;
constexpr auto kLastWait = std::chrono::milliseconds(500);
// Between two tries on a descriptor that refuses, such as that of a full disk.
constexpr auto kRetryWait = std::chrono::seconds(1);

constexpr size_t kPrefixBytes = 32;  // "[2026-11-23 07:34:37.575] ", "<3>"
constexpr size_t kSuffixBytes = 48;  // " (and 18446744073709551615 more like it)"
static_assert(kPrefixBytes + LineGate::kMostBytes + kSuffixBytes < kChunkBytes,
              "a chunk holds a line");

constexpr const char* kLevelNames[] = {"emerg", "alert",  "crit", "error",
                                       "warn",  "notice", "info", "debug"};

int64_t NowMs() {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
      .count();
}

// JOURNAL_STREAM names the journal's socket as "device:inode". A program whose standard error has
// been sent elsewhere still has the variable.
bool IsJournal(int fd) {
  const char* name = getenv("JOURNAL_STREAM");
  struct stat status = {};
  if (name == nullptr || fstat(fd, &status) != 0) return false;
  return name == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// One line and no control sequence, whatever name a client has sent: nobody forges lines of ours or
// speaks to the terminal. Line feeds at the end go.
size_t MakeOneLine(char* text, size_t size) {
  while (size > 0 && text[size - 1] == '\n') --size;
  for (size_t i = 0; i < size; ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte < ' ' || byte == 0x7f) text[i] = byte == '\n' ? ' ' : '?';
  }
  return size;
}

// The bytes that snprintf has stored, from its result.
size_t Stored(int result, size_t room) {
  return result < 0 ? 0 : std::min(static_cast<size_t>(result), room - 1);
}

class Diagnostics {
 public:
  explicit Diagnostics(const char* program)
      : program_(program), is_journal_(IsJournal(STDERR_FILENO)) {}

  void Start();
  void Log(const bsp::LogLine& line) noexcept;
  void TellOwn(std::string_view line);
  void End();

 private:
  // With mutex_ held.
  void Put(int level, bool is_own, std::string_view line, std::string_view suffix);
  void Append(std::string_view bytes);
  size_t Take(char (&chunk)[kChunkBytes]);
  void PutRepeats();
  void PutLoss();
  size_t Limit(int level) const;

  // On the writer.
  void Run();
  bool Write(const char* data, size_t size);
  bool WaitToRetry(int failure);

  const char* const program_;
  const bool is_journal_;

  std::mutex mutex_;  // guards the fields below
  std::condition_variable wake_;
  std::condition_variable done_;
  std::array<char, kRingBytes> ring_;
  size_t head_ = 0;  // of the oldest byte
  size_t used_ = 0;  // bytes, whole lines
  size_t lost_ = 0;  // lines that are not told yet
  int failure_ = 0;  // errno of the last write that failed, since the last loss that was told
  LineGate gate_;
  bool is_ending_ = false;
  bool is_done_ = false;  // the writer has left
};

// Never destroyed, see (4). Null until StartDiagnostics.
Diagnostics* g_diagnostics = nullptr;

// ---- Whoever logs

void Diagnostics::Log(const bsp::LogLine& line) noexcept {
  const int level = HostLevel(line.format, line.level);
  if (level != line.level && !bsp::IsLogged(line.module, level)) return;
  char text[LineGate::kMostBytes];
  const int length = is_journal_
                         ? snprintf(text, sizeof text, "%s %s:%d %s, %s", line.module, line.file,
                                    line.line, line.func, line.text)
                         : snprintf(text, sizeof text, "%s <%s> %s:%d %s, %s", line.module,
                                    kLevelNames[level], line.file, line.line, line.func, line.text);
  const std::string_view told(text, MakeOneLine(text, Stored(length, sizeof text)));
  const bool is_gated = level > BSP_LEVEL_CRIT && level < BSP_LEVEL_DEBUG;
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    if (is_gated && !gate_.Admit(line.format, level, told, NowMs())) return;
    Put(level, false, told, "");
  }
  wake_.notify_one();
}

void Diagnostics::TellOwn(std::string_view line) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    Put(BSP_LEVEL_ERROR, true, line, "");
  }
  wake_.notify_one();
}

// ---- The ring

size_t Diagnostics::Limit(int level) const {
  if (level < BSP_LEVEL_DEBUG) return kRingBytes;
  // Once some are lost, a gap of some size is better than many small ones.
  return lost_ > 0 ? kRingBytes / 2 : kRingBytes / 4 * 3;
}

void Diagnostics::Put(int level, bool is_own, std::string_view line, std::string_view suffix) {
  if (lost_ > 0 && used_ <= kRingBytes / 2) PutLoss();
  char prefix[kPrefixBytes];
  int length = 0;
  if (is_journal_) {
    length = snprintf(prefix, sizeof prefix, "<%d>", level);
  } else if (!is_own) {
    length = snprintf(prefix, sizeof prefix, "[%s] ", bsp::TimeUtil::TimeMillisStr());
  }
  const std::string_view begin(prefix, Stored(length, sizeof prefix));
  if (used_ + begin.size() + line.size() + suffix.size() + 1 > Limit(level)) {
    ++lost_;
    return;
  }
  Append(begin);
  Append(line);
  Append(suffix);
  Append("\n");
}

void Diagnostics::Append(std::string_view bytes) {
  const size_t tail = (head_ + used_) % kRingBytes;
  const size_t first = std::min(bytes.size(), kRingBytes - tail);
  memcpy(&ring_[tail], bytes.data(), first);
  memcpy(&ring_[0], bytes.data() + first, bytes.size() - first);
  used_ += bytes.size();
}

// Moves whole lines out of the ring; their size.
size_t Diagnostics::Take(char (&chunk)[kChunkBytes]) {
  size_t size = std::min(used_, kChunkBytes);
  const size_t first = std::min(size, kRingBytes - head_);
  memcpy(chunk, &ring_[head_], first);
  memcpy(chunk + first, &ring_[0], size - first);
  while (size > 0 && chunk[size - 1] != '\n') --size;
  used_ -= size;
  // An empty ring begins anew: a quiet program keeps to its first pages.
  head_ = used_ == 0 ? 0 : (head_ + size) % kRingBytes;
  return size;
}

void Diagnostics::PutRepeats() {
  const int64_t now_ms = NowMs() + (is_ending_ ? LineGate::kRefillMs : 0);
  while (const LineGate::Repeat* repeat = gate_.TakeDue(now_ms)) {
    char suffix[kSuffixBytes] = "";
    if (repeat->count > 1) {
      snprintf(suffix, sizeof suffix,
               repeat->is_mixed ? " (and %zu other lines)" : " (and %zu more like it)",
               repeat->count - 1);
    }
    Put(repeat->level, false, std::string_view(repeat->latest, repeat->size), suffix);
  }
}

void Diagnostics::PutLoss() {
  char text[256];
  const int length =
      failure_ == 0
          ? snprintf(text, sizeof text, "%s: %zu lines lost, standard error was not read", program_,
                     lost_)
          : snprintf(text, sizeof text, "%s: %zu lines lost, standard error took none: %s",
                     program_, lost_, strerror(failure_));
  lost_ = 0;
  failure_ = 0;
  Put(BSP_LEVEL_WARN, true, std::string_view(text, Stored(length, sizeof text)), "");
}

// ---- The writer

void Diagnostics::Start() {
  sigset_t all;
  sigset_t before;
  sigfillset(&all);
  // The program's signals are not for the writer. With SIGTTOU blocked a terminal takes the lines
  // of a background process too, and does not stop it.
  pthread_sigmask(SIG_SETMASK, &all, &before);
  try {
    std::thread([this] { Run(); }).detach();
  } catch (...) {
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    throw;
  }
  pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

void Diagnostics::Run() {
  char chunk[kChunkBytes];
  std::unique_lock<std::mutex> lock(mutex_);
  while (true) {
    PutRepeats();
    if (used_ == 0 && lost_ > 0) PutLoss();
    const size_t size = Take(chunk);
    if (size > 0) {
      lock.unlock();
      const bool is_written = Write(chunk, size);
      lock.lock();
      if (!is_written) break;
    } else if (is_ending_) {
      break;
    } else if (const int64_t due_ms = gate_.NextDueMs(); due_ms == INT64_MAX) {
      wake_.wait(lock);
    } else {
      wake_.wait_until(lock, Clock::time_point(std::chrono::milliseconds(due_ms)));
    }
  }
  is_done_ = true;
  done_.notify_all();
}

// False when the program ends and nothing can be written.
bool Diagnostics::Write(const char* data, size_t size) {
  while (size > 0) {
    const ssize_t taken = write(STDERR_FILENO, data, size);
    if (taken > 0) {
      data += taken;
      size -= static_cast<size_t>(taken);
      continue;
    }
    const int failure = taken == 0 ? EIO : errno;
    if (failure != EINTR && !WaitToRetry(failure)) return false;
  }
  return true;
}

bool Diagnostics::WaitToRetry(int failure) {
  if (failure == EAGAIN) {
    // Whoever shares the open file has made it non-blocking: we wait in its place.
    struct pollfd room = {STDERR_FILENO, POLLOUT, 0};
    poll(&room, 1, 1000);
    return true;
  }
  std::unique_lock<std::mutex> lock(mutex_);
  failure_ = failure;
  return !wake_.wait_for(lock, kRetryWait, [this] { return is_ending_; });
}

void Diagnostics::End() {
  std::unique_lock<std::mutex> lock(mutex_);
  is_ending_ = true;
  wake_.notify_one();
  done_.wait_for(lock, kLastWait, [this] { return is_done_; });
}

}  // namespace

void StartDiagnostics(const char* program) {
  auto started = std::make_unique<Diagnostics>(program);
  started->Start();  // when it throws, lines still go to standard error at once
  g_diagnostics = started.release();
  bsp::SetLogSink([](const bsp::LogLine& line) noexcept { g_diagnostics->Log(line); });
}

void Tell(const char* program, const char* what) {
  char text[LineGate::kMostBytes];
  const int length = snprintf(text, sizeof text, "%s: %s", program, what);
  const std::string_view line(text, MakeOneLine(text, Stored(length, sizeof text)));
  if (g_diagnostics != nullptr) {
    g_diagnostics->TellOwn(line);
  } else {
    fprintf(stderr, "%.*s\n", static_cast<int>(line.size()), line.data());
  }
}

void EndDiagnostics() {
  if (g_diagnostics != nullptr) g_diagnostics->End();
}

}  // namespace app
