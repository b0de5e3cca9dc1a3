// Child processes of tests: a forked function or a program, with its output and its end.
#ifndef BSP_TESTS_SUPPORT_CHILD_H_
#define BSP_TESTS_SUPPORT_CHILD_H_

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

namespace test {

// Owns one child; the destructor kills and reaps it if it still runs. A child dies with the thread
// that started it.
//
// Threads: one at a time.
class Child {
 public:
  // Forks; the child runs `body` and ends with its result by _exit, so that no destructor and no
  // exit handler of the parent runs twice.
  static Child Fork(const std::function<int()>& body);

  // Runs a program; argv[0] is its path, or a name looked up in PATH.
  static Child Run(const std::vector<std::string>& argv);

  Child(Child&& other) noexcept;
  Child& operator=(Child&& other) noexcept;
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child();

  pid_t pid() const { return pid_; }

  void Signal(int number) const;

  // True once it has ended, before or after Wait.
  bool IsOver() const;

  // Stops it, and returns when it stands; Signal(SIGCONT) lets it go on. What happens meanwhile it
  // finds in one piece.
  void Stop() const;

  // Reads standard output and error (both in one pipe) until a line holds `text`, behind the line
  // found last. False when the output ended or the time ran out.
  bool WaitForLine(const std::string& text, int timeout_ms = 60000);

  // Reads the rest of the output and waits for the end. The exit code, 128 + n when signal n ended
  // the child, or -1 when the time ran out (the child is then killed).
  int Wait(int timeout_ms = 60000);

  // Everything read so far.
  const std::string& output() const { return output_; }

 private:
  Child(pid_t pid, int out) : pid_(pid), out_(out) {}

  bool FillOutput(int timeout_ms);
  void Release();

  pid_t pid_ = -1;
  int out_ = -1;
  std::string output_;
  size_t lines_begin_ = 0;  // of output_, behind the line that WaitForLine has found last
};

// Lets two threads meet on the first use of a singleton, in fresh processes: true when they always
// got the same object. To be called before this process itself has used it.
bool RaceOnFirstUse(const std::function<const void*()>& instance);

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_CHILD_H_
