#include "tests/support/child.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

namespace test {
namespace {

using Clock = std::chrono::steady_clock;

int LeftMs(Clock::time_point end) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

Child Child::Fork(const std::function<int()>& body) {
  int ends[2];
  if (pipe2(ends, O_CLOEXEC) != 0) {
    perror("pipe2");
    abort();
  }
  fflush(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) _exit(127);
    dup2(ends[1], STDOUT_FILENO);
    dup2(ends[1], STDERR_FILENO);
    static char lines[BUFSIZ];  // without a buffer of its own a used stream stays as it was
    setvbuf(stdout, lines, _IOLBF, sizeof lines);
    const int code = body();
    fflush(nullptr);
    _exit(code);
  }
  close(ends[1]);
  return Child(pid, ends[0]);
}

Child Child::Run(const std::vector<std::string>& argv) {
  std::vector<char*> words;
  for (const std::string& word : argv) words.push_back(const_cast<char*>(word.c_str()));
  words.push_back(nullptr);
  return Fork([&] {
    signal(SIGPIPE, SIG_DFL);  // as a shell starts programs; ours has it ignored
    execvp(words[0], words.data());
    perror(words[0]);
    return 127;
  });
}

Child::Child(Child&& other) noexcept { *this = std::move(other); }

Child& Child::operator=(Child&& other) noexcept {
  if (this == &other) return *this;
  Release();
  pid_ = std::exchange(other.pid_, -1);
  out_ = std::exchange(other.out_, -1);
  output_ = std::move(other.output_);
  lines_begin_ = std::exchange(other.lines_begin_, 0);
  return *this;
}

Child::~Child() { Release(); }

void Child::Release() {
  if (pid_ > 0) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (out_ != -1) close(out_);
  pid_ = out_ = -1;
}

void Child::Signal(int number) const {
  if (pid_ > 0) kill(pid_, number);
}

bool Child::IsOver() const {
  siginfo_t info = {};
  return pid_ <= 0 ||
         waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0 ||
         info.si_pid == pid_;
}

void Child::Stop() const {
  siginfo_t info = {};
  Signal(SIGSTOP);
  waitid(P_PID, static_cast<id_t>(pid_), &info, WSTOPPED | WEXITED | WNOWAIT);
}

// Reads what comes within the time into output_; false at the end of output or of time.
bool Child::FillOutput(int timeout_ms) {
  if (out_ == -1) return false;
  struct pollfd ready = {out_, POLLIN, 0};
  const int seen = poll(&ready, 1, timeout_ms);
  if (seen == -1 && errno == EINTR) return true;  // nothing yet; the caller looks at its time
  if (seen <= 0) return false;
  char bytes[4096];
  const ssize_t count = read(out_, bytes, sizeof bytes);
  if (count == -1 && errno == EINTR) return true;
  if (count <= 0) return false;
  output_.append(bytes, static_cast<size_t>(count));
  return true;
}

bool Child::WaitForLine(const std::string& text, int timeout_ms) {
  const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (true) {
    const size_t found = output_.find(text, lines_begin_);
    const size_t line_end = output_.find('\n', found);
    if (line_end != std::string::npos) {
      lines_begin_ = line_end + 1;
      return true;
    }
    if (!FillOutput(LeftMs(end))) return false;
  }
}

int Child::Wait(int timeout_ms) {
  const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
  while (FillOutput(LeftMs(end))) {
  }
  if (pid_ <= 0) return -1;
  // A child may close its output before it ends; its end comes as no descriptor event here, so it
  // is asked for in small steps.
  int status = 0;
  while (waitpid(pid_, &status, WNOHANG) == 0) {
    if (LeftMs(end) == 0) {
      Release();
      return -1;
    }
    poll(nullptr, 0, 1);
  }
  pid_ = -1;
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

bool RaceOnFirstUse(const std::function<const void*()>& instance) {
  bool is_one = true;
  for (int round = 0; round < 20; ++round) {
    Child child = Child::Fork([&] {
      std::atomic<int> waiting{2};
      const auto race = [&] {
        --waiting;
        while (waiting > 0) std::this_thread::yield();
        return instance();
      };
      auto other = std::async(std::launch::async, race);
      const void* const mine = race();
      return mine != nullptr && mine == other.get() ? 0 : 1;
    });
    is_one = child.Wait() == 0 && is_one;
  }
  return is_one;
}

}  // namespace test
