// bspctl rpc: calls, messages, look-ups and listening on the bus, so that a shell script can be a
// module.
#include <fcntl.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <deque>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>

#include "apps/bspctl/ctl.h"
#include "bsp/base/error.h"
#include "bsp/net/rpc/rpc_client.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/util/string_helper.h"

namespace ctl {
namespace {

constexpr int kConnectFailed = -4;  // RpcClient::Open: nobody accepts
constexpr int kWaitTimedOut = -3;   // no reply in time
constexpr int kNotFound = -2;       // the broker knows no such command

struct RpcRequest {
  std::string command;
  std::string payload;
  bool is_payload_given = false;
  bool is_hex = false;
  int timeout_ms = 5000;
  std::string kind = "message";
  std::string reply;
  std::string program;
};

// The first line of an error's text.
std::string Text(const std::shared_ptr<MSError>& error) {
  return bsp::StringHelper::Split(error->Message(), "\n")[0];
}

bool ParseBus(const std::string& bus, std::string* host, int* port) {
  const size_t colon = bus.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  *host = bus.substr(0, colon);
  *port = bsp::StringHelper::ToInt32(bus.substr(colon + 1), -1);
  return *port > 0 && *port <= 65535;
}

// Null, with *code set and the reason told, when the bus cannot be reached.
std::shared_ptr<bsp::RpcClient> OpenBus(const Context& context, int* code) {
  std::string host;
  int port = 0;
  if (!ParseBus(context.bus, &host, &port)) {
    *code = Fail(kUsage, "--bus %s: give HOST:PORT", context.bus.c_str());
    return nullptr;
  }
  auto client = std::make_shared<bsp::RpcClient>();
  bsp::RpcClient::Options options;
  options.fail_calls_on_disconnect = true;
  client->SetOptions(options);
  const auto error = client->Open(host, static_cast<uint16_t>(port));
  if (error == nullptr) return client;
  *code = error->ErrorCode() == kConnectFailed
              ? Fail(kNotRunning, "no broker on %s: start bsp-broker, or give --bus HOST:PORT",
                     context.bus.c_str())
              : Fail(kFailed, "%s", Text(error).c_str());
  return nullptr;
}

bool ReadPayload(const RpcRequest& request, std::string* payload) {
  *payload = request.payload;
  if (request.payload == "-") {
    payload->assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
  }
  if (!request.is_hex) return true;
  std::string digits = *payload;
  digits.erase(std::remove_if(digits.begin(), digits.end(), ::isspace), digits.end());
  return FromHex(digits, payload);
}

// The reply step appends a zero byte to what the listener sent.
std::string WithoutExtraZero(const std::string& response) {
  return response.empty() ? response : response.substr(0, response.size() - 1);
}

void PrintPayload(const std::string& payload, const Context& context, bool is_hex) {
  if (context.json) {
    PrintLine(ToJson(payload).dump());
  } else if (is_hex) {
    PrintLine(ToHex(payload));
  } else {
    fwrite(payload.data(), 1, payload.size(), stdout);
    if (IsTerminal() || payload.empty() || payload.back() != '\n') putchar('\n');
    fflush(stdout);
  }
}

// Which of the roads to failure a call has taken. A listener may answer with any negative code, the
// broker's own included, so a code alone does not tell the two apart.
int TellCallFailure(bsp::RpcClient* client, const RpcRequest& request,
                    const std::shared_ptr<MSError>& error) {
  const int code = error->ErrorCode();
  const char* command = request.command.c_str();
  const bool is_answer = Text(error).find("err_code") != std::string::npos;
  if (!is_answer && code == kWaitTimedOut) {
    return Fail(kTimedOut, "%s: no reply within %d ms", command, request.timeout_ms);
  }
  if (!is_answer) return Fail(kFailed, "%s: %s", command, Text(error).c_str());
  int kind = 0;
  int power = 0;
  if (code == kNotFound && client->CheckCmdPower(request.command, kind, power) != nullptr) {
    return Fail(kNoSuchCommand, "nobody listens to %s", command);
  }
  return Fail(kOtherSideFailed, "%s answered with failure %d", command, code);
}

int Call(const Context& context, const RpcRequest& request) {
  std::string payload;
  if (!ReadPayload(request, &payload)) return Fail(kUsage, "--hex: the payload is no hex text");
  int code = kFailed;
  const auto client = OpenBus(context, &code);
  if (client == nullptr) return code;
  std::string response;
  const auto error =
      client->SendRequest(request.command.c_str(), payload, response, request.timeout_ms);
  if (error != nullptr) return TellCallFailure(client.get(), request, error);
  PrintPayload(WithoutExtraZero(response), context, request.is_hex);
  return kDone;
}

int Send(const Context& context, const RpcRequest& request) {
  std::string payload;
  if (!ReadPayload(request, &payload)) return Fail(kUsage, "--hex: the payload is no hex text");
  int code = kFailed;
  const auto client = OpenBus(context, &code);
  if (client == nullptr) return code;
  auto error = client->SendMessage(request.command.c_str(), payload);
  if (error == nullptr) error = client->Flush(request.timeout_ms);
  if (error == nullptr) return kDone;
  if (error->ErrorCode() == kWaitTimedOut) {
    return Fail(kTimedOut, "the broker did not take %s within %d ms", request.command.c_str(),
                request.timeout_ms);
  }
  return Fail(kFailed, "%s: %s", request.command.c_str(), Text(error).c_str());
}

std::string KindText(int kind) {
  if (kind == RPC_TYPE_REQUEST) return "request";
  if (kind == RPC_TYPE_MESSAGE) return "message";
  return std::to_string(kind);
}

int Check(const Context& context, const RpcRequest& request) {
  int code = kFailed;
  const auto client = OpenBus(context, &code);
  if (client == nullptr) return code;
  int kind = -1;
  int power = -1;
  const auto error = client->CheckCmdPower(request.command, kind, power);
  if (error == nullptr) {
    if (context.json) {
      PrintLine(
          Json{{"command", request.command}, {"kind", KindText(kind)}, {"power", power}}.dump());
    } else {
      PrintLine(request.command + ": " + KindText(kind) + ", power " + std::to_string(power));
    }
    return kDone;
  }
  if (error->ErrorCode() == kNotFound) {
    return Fail(kNoSuchCommand, "nobody listens to %s", request.command.c_str());
  }
  if (error->ErrorCode() == kWaitTimedOut) return Fail(kTimedOut, "the broker does not answer");
  return Fail(kFailed, "%s: %s", request.command.c_str(), Text(error).c_str());
}

// ---- listen
// --------------------------------------------------------------------------------------

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

// Runs `program COMMAND` by the shell with the payload on its standard input; its output becomes
// the reply. Its exit code, or 128 + n for signal n.
int RunProgram(const RpcRequest& request, const std::string& payload, std::string* output) {
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0) return 127;
  if (pipe2(out, O_CLOEXEC) != 0) {
    close(in[0]);
    close(in[1]);
    return 127;
  }
  const pid_t pid = fork();
  if (pid == 0) {
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    signal(SIGPIPE, SIG_DFL);
    dup2(in[0], STDIN_FILENO);
    dup2(out[1], STDOUT_FILENO);
    execl("/bin/sh", "sh", "-c", (request.program + " \"$@\"").c_str(), "sh",
          request.command.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  close(in[0]);
  close(out[1]);
  if (pid == -1) {
    close(in[1]);
    close(out[0]);
    return 127;
  }

  // Both ends at once: a program may answer before it has read all.
  fcntl(in[1], F_SETFL, O_NONBLOCK);
  size_t written = 0;
  int feed = in[1];
  char bytes[65536];
  for (;;) {
    if (feed != -1 && written == payload.size()) {
      close(feed);
      feed = -1;
    }
    struct pollfd ready[2] = {{out[0], POLLIN, 0}, {feed, POLLOUT, 0}};
    if (poll(ready, 2, -1) == -1 && errno != EINTR) break;
    if (feed != -1 && ready[1].revents != 0) {
      const ssize_t count = write(feed, payload.data() + written, payload.size() - written);
      if (count > 0) written += static_cast<size_t>(count);
      if (count == -1 && errno != EAGAIN && errno != EINTR) written = payload.size();
    }
    if (ready[0].revents == 0) continue;
    const ssize_t count = read(out[0], bytes, sizeof bytes);
    if (count == 0 || (count == -1 && errno != EINTR)) break;
    if (count > 0) output->append(bytes, static_cast<size_t>(count));
  }
  if (feed != -1) close(feed);
  close(out[0]);
  int status = 0;
  while (waitpid(pid, &status, 0) == -1 && errno == EINTR) {
  }
  return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

void PrintFrame(const Context& context, const RpcRequest& request, const Frame& frame) {
  if (context.json) {
    Json line = {{"command", request.command},
                 {"kind", KindText(frame.head.type)},
                 {"pid", frame.head.pid},
                 {"seq", frame.head.seq}};
    line.update(ToJson(frame.payload));
    PrintLine(line.dump());
  } else {
    PrintPayload(frame.payload, context, request.is_hex);
  }
}

void Answer(bsp::RpcClient* client, const RpcRequest& request, Frame* frame) {
  std::string reply = request.reply;
  int code = 0;
  if (!request.program.empty()) code = RunProgram(request, frame->payload, &reply);
  if (frame->head.type != RPC_TYPE_REQUEST) return;
  frame->head.err_code = -code;
  const int length = code == 0 ? static_cast<int>(reply.size()) : 0;
  const auto error = client->SendReplay(&frame->head, reply.data(), length);
  if (error != nullptr) fprintf(stderr, "bspctl: reply not sent: %s\n", Text(error).c_str());
}

int Listen(const Context& context, const RpcRequest& request) {
  // Blocked before the bus thread exists, so that it inherits the mask and only the descriptor
  // hears them.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
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
    client->Close();
    if (error->ErrorCode() == kWaitTimedOut) return Fail(kTimedOut, "the broker does not answer");
    return Fail(kOtherSideFailed, "cannot listen to %s, code %d%s", request.command.c_str(),
                error->ErrorCode(),
                error->ErrorCode() == -6 ? ": another module answers it already" : "");
  }
  if (!context.json) fprintf(stderr, "bspctl: listening to %s\n", request.command.c_str());

  code = kDone;
  for (;;) {
    struct pollfd ready[2] = {{inbox.fd(), POLLIN, 0}, {signals, POLLIN, 0}};
    if (poll(ready, 2, -1) == -1 && errno == EINTR) continue;
    bool is_lost = false;
    for (Frame& frame : inbox.Take(&is_lost)) {
      PrintFrame(context, request, frame);
      Answer(client.get(), request, &frame);
    }
    if (ready[1].revents != 0) break;
    if (is_lost) {
      code = Fail(kNotRunning, "the broker is gone");
      break;
    }
    if (ferror(stdout) != 0) {
      code = Fail(kFailed, "standard output is closed");
      break;
    }
  }
  client->Close();
  close(signals);
  return code;
}

// ---- command line
// --------------------------------------------------------------------------------

using Shared = std::shared_ptr<RpcRequest>;

CLI::App* AddRpcVerb(CLI::App* noun, Context* context, const std::string& name,
                     const std::string& text, const Shared& request,
                     int (*body)(const Context&, const RpcRequest&)) {
  CLI::App* verb = AddVerb(noun, context, name, text, [=] { return body(*context, *request); });
  verb->add_option("command", request->command, "name of the command, at most 62 characters")
      ->required()
      ->check([](const std::string& command) {
        return command.empty() || command.size() > 62 ? "a name has 1 to 62 characters"
                                                      : std::string();
      });
  verb->add_option("--bus", context->bus, "address of the broker")->capture_default_str();
  return verb;
}

void AddPayload(CLI::App* verb, const Shared& request) {
  verb->add_option("payload", request->payload, "bytes to send; - reads standard input");
  verb->add_flag("--hex", request->is_hex, "payload and answer as hex digits");
  verb->add_option("--timeout", request->timeout_ms, "milliseconds to wait")
      ->capture_default_str()
      ->check(CLI::NonNegativeNumber);
}

}  // namespace

void AddRpc(CLI::App* app, Context* context) {
  CLI::App* noun = app->add_subcommand("rpc", "the bus: call, send, check, listen");
  noun->require_subcommand(1);
  const auto request = std::make_shared<RpcRequest>();

  AddPayload(
      AddRpcVerb(noun, context, "call", "call a command and print its answer", request, Call),
      request);
  AddPayload(AddRpcVerb(noun, context, "send", "send a message to all listeners", request, Send),
             request);
  AddRpcVerb(noun, context, "check", "show kind and power of a command", request, Check);

  CLI::App* listen = AddRpcVerb(
      noun, context, "listen", "print what comes in for a command, and answer it", request, Listen);
  listen->add_option("--kind", request->kind, "message or request")
      ->capture_default_str()
      ->check(CLI::IsMember({"message", "request"}));
  listen->add_flag("--hex", request->is_hex, "print payloads as hex digits");
  CLI::Option* reply =
      listen->add_option("--reply", request->reply, "answer requests with this text");
  listen
      ->add_option("--exec", request->program,
                   "run this by the shell for each frame: the command's name as argument, the "
                   "payload on its input; its output is the answer, its exit code n the failure -n")
      ->excludes(reply);
}

}  // namespace ctl
