// bspctl rpc listen: prints what comes in for a command and answers it, with a fixed text or by a
// program.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <utility>

#include "apps/bspctl/rpc.h"
#include "apps/common/host.h"
#include "bsp/base/error.h"
#include "bsp/net/rpc/rpc_header.h"

namespace ctl {
namespace {

struct Frame {
  RpcHeader head;
  std::string payload;
};

// Carries frames from the bus thread, which must not wait, to the main thread, which runs programs
// and prints. A pipe wakes the main thread beside its signals.
class Inbox : public sigslot::has_slots<sigslot::single_threaded> {
 public:
  Inbox() {
    if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) wake_[0] = wake_[1] = -1;
  }
  Inbox(const Inbox&) = delete;
  Inbox& operator=(const Inbox&) = delete;
  ~Inbox() override {
    if (wake_[0] != -1) close(wake_[0]);
    if (wake_[1] != -1) close(wake_[1]);
  }

  int fd() const { return wake_[0]; }

  void HandleMessage(std::shared_ptr<bsp::RpcClient>, RpcHeader* head) {
    const char* payload = reinterpret_cast<const char*>(head) + sizeof *head;
    Frame frame = {*head, std::string(payload, static_cast<size_t>(head->size) - sizeof *head)};
    {
      std::lock_guard<std::mutex> lock(mutex_);
      frames_.push_back(std::move(frame));
    }
    Wake();
  }

  void HandleError(std::shared_ptr<bsp::RpcClient>, std::shared_ptr<MSError>) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      is_lost_ = true;
    }
    Wake();
  }

  // Everything that has come in; *is_lost tells that nothing more will.
  std::deque<Frame> Take(bool* is_lost) {
    char bytes[64];
    while (read(wake_[0], bytes, sizeof bytes) > 0) {
    }
    std::lock_guard<std::mutex> lock(mutex_);
    *is_lost = is_lost_;
    return std::exchange(frames_, {});
  }

 private:
  void Wake() {
    // A full pipe has woken the reader already.
    if (write(wake_[1], "", 1) == -1 && errno != EAGAIN) perror("bspctl: wake");
  }

  int wake_[2] = {-1, -1};
  std::mutex mutex_;  // guards the fields below
  std::deque<Frame> frames_;
  bool is_lost_ = false;
};

// One run of the program of --exec, from its start to its end.
class Program {
 public:
  Program(const RpcRequest& request, const std::string& payload) : payload_(payload) {
    int in[2];
    int out[2];
    if (pipe2(in, O_CLOEXEC) != 0) return;
    if (pipe2(out, O_CLOEXEC) != 0) {
      close(in[0]);
      close(in[1]);
      return;
    }
    pid_ = fork();
    if (pid_ == 0) Become(request, in[0], out[1]);
    if (pid_ != -1) setpgid(pid_, pid_);  // here too: whoever comes first, Run may signal the group
    close(in[0]);
    close(out[1]);
    in_ = in[1];
    out_ = out[0];
    fcntl(in_, F_SETFL, O_NONBLOCK);
  }
  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;
  ~Program() {
    if (in_ != -1) close(in_);
    if (out_ != -1) close(out_);
  }

  // Passes the payload in and takes the output until the program ends, or `signals` is readable:
  // it is then told to end. Its exit code, or 128 + n for signal n; 127 when it could not start.
  int Run(int signals, std::string* output) {
    if (pid_ == -1) return 127;
    // Both ends at once: a program may answer before it has read all.
    while (out_ != -1) {
      if (in_ != -1 && written_ == payload_.size()) CloseInput();
      struct pollfd ready[3] = {{out_, POLLIN, 0}, {in_, POLLOUT, 0}, {signals, POLLIN, 0}};
      if (poll(ready, 3, -1) == -1) continue;
      if (ready[2].revents != 0) {
        kill(-pid_, SIGTERM);
        break;
      }
      if (ready[1].revents != 0) Feed();
      if (ready[0].revents != 0) TakeOutput(output);
    }
    int status = 0;
    while (waitpid(pid_, &status, 0) == -1 && errno == EINTR) {
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }

 private:
  // In the child. A process group of its own, so that all that the shell starts can be ended.
  [[noreturn]] static void Become(const RpcRequest& request, int in, int out) {
    setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    dup2(in, STDIN_FILENO);
    dup2(out, STDOUT_FILENO);
    setenv("BSP_COMMAND", request.command.c_str(), 1);
    execl("/bin/sh", "sh", "-c", request.program.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }

  void CloseInput() {
    close(in_);
    in_ = -1;
  }

  void Feed() {
    const ssize_t count = write(in_, payload_.data() + written_, payload_.size() - written_);
    if (count > 0) written_ += static_cast<size_t>(count);
    if (count == -1 && errno != EAGAIN && errno != EINTR) CloseInput();
  }

  void TakeOutput(std::string* output) {
    char bytes[65536];
    const ssize_t count = read(out_, bytes, sizeof bytes);
    if (count > 0) output->append(bytes, static_cast<size_t>(count));
    if (count > 0 || (count == -1 && errno == EINTR)) return;
    close(out_);
    out_ = -1;
  }

  const std::string& payload_;
  size_t written_ = 0;
  pid_t pid_ = -1;
  int in_ = -1;
  int out_ = -1;
};

void PrintFrame(const Context& context, const RpcRequest& request, const Frame& frame) {
  if (context.json) {
    Json line = {{"command", request.command},
                 {"kind", KindText(frame.head.type)},
                 {"pid", frame.head.pid},
                 {"seq", frame.head.seq}};
    line.update(ToJson(frame.payload));
    PrintJson(line);
  } else {
    PrintPayload(frame.payload, context, request.is_hex);
  }
}

void Answer(bsp::RpcClient* client, const RpcRequest& request, int signals, Frame* frame) {
  std::string reply = request.reply;
  int code = 0;
  if (!request.program.empty()) code = Program(request, frame->payload).Run(signals, &reply);
  if (frame->head.type != RPC_TYPE_REQUEST) {
    fwrite(reply.data(), 1, reply.size(), stderr);  // nobody awaits it, but it is not lost
    return;
  }
  frame->head.err_code = -code;
  const int length = code == 0 ? static_cast<int>(reply.size()) : 0;
  const auto error = client->SendReplay(&frame->head, reply.data(), length);
  if (error != nullptr) fprintf(stderr, "bspctl: reply not sent: %s\n", Text(error).c_str());
}

int FailToListen(const Context& context, const RpcRequest& request,
                 const std::shared_ptr<MSError>& error) {
  constexpr int kTaken = -6;  // a request command has one listener
  constexpr int kLost = -1;
  const int code = error->ErrorCode();
  if (code == kWaitTimedOut) return Fail(kTimedOut, "the broker does not answer");
  if (code == kLost) return FailLost(context);
  return Fail(kOtherSideFailed, "cannot listen to %s, code %d%s", request.command.c_str(), code,
              code == kTaken ? ": another module answers it already" : "");
}

// Until `signals` is readable, or the broker or the reader of our output is gone.
int Serve(bsp::RpcClient* client, const Context& context, const RpcRequest& request, int signals,
          Inbox* inbox) {
  for (;;) {
    struct pollfd ready[2] = {{inbox->fd(), POLLIN, 0}, {signals, POLLIN, 0}};
    if (poll(ready, 2, -1) == -1) continue;
    bool is_lost = false;
    for (Frame& frame : inbox->Take(&is_lost)) {
      PrintFrame(context, request, frame);
      Answer(client, request, signals, &frame);
    }
    if (ready[1].revents != 0) return kDone;
    if (is_lost) return FailLost(context);
    if (ferror(stdout) != 0) return Fail(kFailed, "standard output is closed");
  }
}

}  // namespace

int Listen(const Context& context, const RpcRequest& request) {
  // Blocked before the bus thread exists, so that it inherits the mask and only the descriptor
  // hears them.
  const sigset_t ends = app::BlockSignals({SIGINT, SIGTERM});
  const int signals = signalfd(-1, &ends, SFD_CLOEXEC);

  int code = kFailed;
  Inbox inbox;
  const auto client = OpenBus(context, &code);
  if (client == nullptr) return code;
  client->SignalMessage.connect(&inbox, &Inbox::HandleMessage);
  client->SignalError.connect(&inbox, &Inbox::HandleError);
  const int kind = request.kind == "request" ? RPC_TYPE_REQUEST : RPC_TYPE_MESSAGE;
  const auto error = client->Listen(request.command, kind, 0);
  if (error != nullptr) {
    code = FailToListen(context, request, error);
  } else {
    if (!context.json) fprintf(stderr, "bspctl: listening to %s\n", request.command.c_str());
    code = Serve(client.get(), context, request, signals, &inbox);
  }
  client->Close();
  close(signals);
  return code;
}

}  // namespace ctl
