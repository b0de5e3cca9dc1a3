// bspctl rpc: calls, messages, look-ups and listening on the bus, so that a shell script can be a
// module.
#include "apps/bspctl/rpc.h"

#include <algorithm>
#include <iostream>
#include <iterator>

#include "apps/common/host.h"
#include "bsp/base/error.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/util/string_helper.h"

namespace ctl {
namespace {

constexpr int kConnectFailed = -4;  // RpcClient::Open: nobody accepts
constexpr int kNotFound = -2;       // the broker knows no such command
constexpr int kAnyFailure = -1;     // RpcClient: the connection, when no answer brought the code

constexpr int kAliveTimeoutMs = 1000;

bool ParseBus(const std::string& bus, std::string* host, int* port) {
  const size_t colon = bus.rfind(':');
  if (colon == std::string::npos || colon == 0) return false;
  *host = bus.substr(0, colon);
  *port = bsp::StringHelper::ToInt32(bus.substr(colon + 1), -1);
  return *port > 0 && *port <= 65535;
}

int FailNoBroker(const Context& context) {
  return Fail(kNotRunning, "no broker on %s: start bsp-broker, or give --bus HOST:PORT",
              context.bus.c_str());
}

int FailNobodyListens(const RpcRequest& request) {
  return Fail(kNoSuchCommand, "nobody listens to %s", request.command.c_str());
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

// Which of the roads to failure a call has taken. A listener may answer with any negative code, the
// library's own included, so a code alone does not tell the two apart.
int TellCallFailure(bsp::RpcClient* client, const Context& context, const RpcRequest& request,
                    const std::shared_ptr<MSError>& error) {
  const int code = error->ErrorCode();
  const char* command = request.command.c_str();
  const bool is_answer = Text(error).find("err_code") != std::string::npos;
  if (!is_answer && code == kWaitTimedOut) {
    return Fail(kTimedOut, "%s: no reply within %d ms", command, request.timeout_ms);
  }
  if (!is_answer && code == kAnyFailure) return FailLost(context);
  if (!is_answer) return Fail(kFailed, "%s: %s", command, Text(error).c_str());
  int kind = 0;
  int power = 0;
  if (code == kNotFound && client->CheckCmdPower(request.command, kind, power) != nullptr) {
    return FailNobodyListens(request);
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
  if (error != nullptr) return TellCallFailure(client.get(), context, request, error);
  PrintPayload(WithoutExtraZero(response), context, request.is_hex);
  return kDone;
}

// A failure of a question that the broker itself answers.
int TellBrokerFailure(const Context& context, const RpcRequest& request,
                      const std::shared_ptr<MSError>& error) {
  switch (error->ErrorCode()) {
    case kNotFound:
      return FailNobodyListens(request);
    case kWaitTimedOut:
      return Fail(kTimedOut, "the broker does not answer");
    case kAnyFailure:
      return FailLost(context);
    default:
      return Fail(kFailed, "%s: %s", request.command.c_str(), Text(error).c_str());
  }
}

int Send(const Context& context, const RpcRequest& request) {
  std::string payload;
  if (!ReadPayload(request, &payload)) return Fail(kUsage, "--hex: the payload is no hex text");
  int code = kFailed;
  const auto client = OpenBus(context, &code);
  if (client == nullptr) return code;
  auto error = client->SendMessage(request.command.c_str(), payload);
  if (error == nullptr) error = client->Flush(request.timeout_ms);
  // A message has no answer that would tell that nobody takes it.
  int kind = 0;
  int power = 0;
  if (error == nullptr) error = client->CheckCmdPower(request.command, kind, power);
  return error == nullptr ? kDone : TellBrokerFailure(context, request, error);
}

int Check(const Context& context, const RpcRequest& request) {
  int code = kFailed;
  const auto client = OpenBus(context, &code);
  if (client == nullptr) return code;
  int kind = -1;
  int power = -1;
  const auto error = client->CheckCmdPower(request.command, kind, power);
  if (error != nullptr) return TellBrokerFailure(context, request, error);
  if (context.json) {
    PrintJson({{"command", request.command}, {"kind", KindText(kind)}, {"power", power}});
  } else {
    PrintLine(request.command + ": " + KindText(kind) + ", power " + std::to_string(power));
  }
  return kDone;
}

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
      ->check([](const std::string& text) {
        return bsp::StringHelper::ToInt32(text, -1) < 0 ? "give milliseconds, not " + text
                                                        : std::string();
      });
}

}  // namespace

std::string Text(const std::shared_ptr<MSError>& error) {
  return bsp::StringHelper::Split(error->Message(), "\n")[0];
}

std::shared_ptr<bsp::RpcClient> OpenBus(const Context& context, int* code) {
  std::string host;
  int port = 0;
  if (!ParseBus(context.bus, &host, &port)) {
    *code = Fail(kUsage, "--bus %s: give HOST:PORT", context.bus.c_str());
    return nullptr;
  }
  if (!app::IsResolved(host)) {
    *code = Fail(kFailed, "--bus %s: unknown host", context.bus.c_str());
    return nullptr;
  }
  auto client = std::make_shared<bsp::RpcClient>();
  bsp::RpcClient::Options options;
  options.fail_calls_on_disconnect = true;
  client->SetOptions(options);
  const auto error = client->Open(host, static_cast<uint16_t>(port));
  if (error == nullptr) return client;
  *code = error->ErrorCode() == kConnectFailed ? FailNoBroker(context)
                                               : Fail(kFailed, "%s", Text(error).c_str());
  return nullptr;
}

int FailLost(const Context& context) {
  int code = kNotRunning;
  const auto client = OpenBus(context, &code);
  if (client == nullptr) return code;
  // A round trip: the port of a broker that is just dying still takes connections.
  if (client->Flush(kAliveTimeoutMs) != nullptr) return FailNoBroker(context);
  return Fail(kFailed,
              "the broker closed the connection: a frame above its limit? Its log names the "
              "reason");
}

std::string KindText(int kind) {
  if (kind == RPC_TYPE_REQUEST) return "request";
  if (kind == RPC_TYPE_MESSAGE) return "message";
  return std::to_string(kind);
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
                   "run this by the shell for each frame: the payload on its input, the command's "
                   "name in $BSP_COMMAND; its output is the answer, its exit code n the failure -n")
      ->excludes(reply);
}

}  // namespace ctl
