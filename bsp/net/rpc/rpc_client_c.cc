// The C binding of the bus. The class does the work; the flat functions at the end check what a C
// caller hands in, and let no exception out.
#include "bsp/net/rpc/rpc_client_c.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iterator>
#include <mutex>
#include <string_view>
#include <utility>

#include "bsp/base/process.h"
#include "bsp/log/log.h"

namespace {

const std::shared_ptr<MSError> kOk;

constexpr int kRespMax = 0xa0000;  // 655360 bytes: room for the answer of a handler

std::shared_ptr<MSError> Passed(const std::shared_ptr<MSError>& error, int line) {
  if (error == kOk) return kOk;
  return MSError::Wrapf(error, "%s", "")->SetTracePoint(BSP_FILE, line);
}

std::shared_ptr<MSError> NotInit() {
  return BSP_NEW_ERROR(RPC_ERR_FAILED, "rpc client is not init");
}

// The name under which frames for `cmd` come in.
std::string TravellingName(const char* cmd) {
  char name[64];
  bsp::SetRpcCmd(name, cmd);
  return std::string(bsp::RpcCmdText(name));
}

}  // namespace

RpcClientC::RpcClientC() = default;

RpcClientC::~RpcClientC() { Stop(); }

void RpcClientC::Stop() {
  if (rpc_client_ != nullptr) rpc_client_->Close();
}

std::shared_ptr<MSError> RpcClientC::Start(const std::string& host, int port) {
  return Start(host, port, bsp::RpcClient::Options());
}

std::shared_ptr<MSError> RpcClientC::Start(const std::string& host, int port,
                                           const bsp::RpcClient::Options& options) {
  if (port < 1 || port > 65535) {
    return BSP_NEW_ERROR(RPC_ERR_FAILED, "port %d is not one of 1 to 65535", port);
  }
  rpc_client_ = std::make_shared<bsp::RpcClient>();
  rpc_client_->SetOptions(options);
  // Pages that no handler writes to never cost memory, nor a short-lived program time.
  resp_buf_.reset(static_cast<char*>(calloc(1, kRespMax)));
  if (resp_buf_ == nullptr) return BSP_NEW_ERROR(RPC_ERR_FAILED, "no memory for the answers");
  // Before the thread exists: the loss of a connection may be told as soon as it runs.
  rpc_client_->SignalMessage.connect(this, &RpcClientC::HandleMessage);
  rpc_client_->SignalError.connect(this, &RpcClientC::HandleError);
  return Passed(rpc_client_->Open(host, static_cast<uint16_t>(port)), __LINE__);
}

std::shared_ptr<MSError> RpcClientC::Listen(const char* cmd, int type, int power,
                                            RpcClientHandler handler, void* user_data) {
  if (rpc_client_ == nullptr) return NotInit();
  auto error = CheckProcess();
  if (error != kOk) return error;
  const std::string name = TravellingName(cmd);
  const uint64_t listen = Enter(name, {handler, user_data});
  try {
    error = rpc_client_->Listen(cmd, type, power);
  } catch (...) {  // memory ran out
    Settle(name, listen, false);
    throw;
  }
  const size_t count = Settle(name, listen, error == kOk);
  if (error != kOk) return Passed(error, __LINE__);
  BSP_LOG_DEBUG(MOD_BSP, "rpc client had register cmd count %d", static_cast<int>(count));
  return kOk;
}

uint64_t RpcClientC::Enter(const std::string& cmd, const MsgProcInfo& handler) {
  const std::lock_guard<bsp::PiMutex> lock(handlers_mutex_);
  handlers_.insert({cmd, {++last_listen_, handler}});
  return last_listen_;
}

size_t RpcClientC::Settle(const std::string& cmd, uint64_t listen, bool is_registered) {
  const std::lock_guard<bsp::PiMutex> lock(handlers_mutex_);
  const auto [first, end] = handlers_.equal_range(cmd);
  const auto own =
      std::find_if(first, end, [=](const auto& entry) { return entry.second.listen == listen; });
  if (own != end) {  // else a later Listen was answered earlier
    handlers_.erase(is_registered ? first : own, is_registered ? own : std::next(own));
  }
  return handlers_.size();
}

std::shared_ptr<MSError> RpcClientC::CheckCmdPower(const char* cmd, int& type, int& power) {
  if (rpc_client_ == nullptr) return NotInit();
  return Passed(rpc_client_->CheckCmdPower(cmd, type, power), __LINE__);
}

std::shared_ptr<MSError> RpcClientC::SendRequest(const char* cmd, const std::string& request,
                                                 std::string& response, int timeout_ms) {
  if (rpc_client_ == nullptr) return NotInit();
  return Passed(rpc_client_->SendRequest(cmd, request, response, timeout_ms), __LINE__);
}

std::shared_ptr<MSError> RpcClientC::SendMessage(const char* cmd, const std::string& message) {
  if (rpc_client_ == nullptr) return NotInit();
  return Passed(rpc_client_->SendMessage(cmd, message), __LINE__);
}

std::shared_ptr<MSError> RpcClientC::SendReplay(const RpcHeader* head, const char* data,
                                                int length) {
  if (rpc_client_ == nullptr) return NotInit();
  return Passed(rpc_client_->SendReplay(head, data, length), __LINE__);
}

std::shared_ptr<MSError> RpcClientC::Flush(int timeout_ms) {
  if (rpc_client_ == nullptr) return NotInit();
  return Passed(rpc_client_->Flush(timeout_ms), __LINE__);
}

bool RpcClientC::IsOwnThread() const {
  return rpc_client_ != nullptr && rpc_client_->IsOwnThread();
}

std::shared_ptr<MSError> RpcClientC::CheckProcess() const {
  if (rpc_client_ == nullptr) return kOk;
  return Passed(rpc_client_->CheckProcess(), __LINE__);
}

bool RpcClientC::IsConnected() const {
  return rpc_client_ != nullptr && rpc_client_->IsConnected();
}

void RpcClientC::Dump() {
  const std::lock_guard<bsp::PiMutex> lock(handlers_mutex_);
  BSP_LOG_DEBUG(MOD_BSP, "rpc client listen %d cmds", static_cast<int>(handlers_.size()));
  for (const auto& [cmd, entry] : handlers_) {
    BSP_LOG_DEBUG(MOD_BSP, "rpc client register action: %s, func: %p, user_data: %p", cmd.c_str(),
                  reinterpret_cast<void*>(entry.handler.func), entry.handler.user_data);
  }
}

RpcClientHandler RpcClientC::HandlerOf(const char (&cmd)[64]) {
  const std::lock_guard<bsp::PiMutex> lock(handlers_mutex_);
  const auto [first, end] = handlers_.equal_range(bsp::RpcCmdText(cmd));
  return first == end ? nullptr : std::prev(end)->second.handler.func;
}

void RpcClientC::HandleMessage(std::shared_ptr<bsp::RpcClient> client, RpcHeader* head) {
  head->cmd[sizeof head->cmd - 1] = '\0';  // a handler reads it as text
  const RpcClientHandler handler = HandlerOf(head->cmd);
  if (handler == nullptr) {
    BSP_LOG_ERROR(MOD_WEB, "method not found: %s", head->cmd);
    return;
  }
  const auto* request = reinterpret_cast<const char*>(head + 1);
  const int length = head->size - static_cast<int>(sizeof *head);
  int result = handler(head->cmd, request, length, resp_buf_.get(), kRespMax);
  BSP_LOG_DEBUG(MOD_CORE, "cmd: %s, resp_len: %d;", head->cmd, result);
  if (result > kRespMax) {
    BSP_LOG_ERROR(MOD_WEB, "handler of cmd %s claims %d bytes of %d, answered as failure -1",
                  head->cmd, result, kRespMax);
    result = -1;
  }
  if (head->type != RPC_TYPE_REQUEST) return;
  head->err_code = result > 0 ? 0 : result;
  client->SendReplay(head, resp_buf_.get(), result > 0 ? result : 0);
}

void RpcClientC::HandleError(std::shared_ptr<bsp::RpcClient>, std::shared_ptr<MSError> error) {
  BSP_LOG_ERROR(MOD_WEB, "handle error: %s", error->Message().c_str());
}

// ---- The flat functions

namespace {

thread_local int t_last_error = 0;

// The result of a call that fails with this code.
int Failed(int code) {
  t_last_error = code;
  return -1;
}

int Refuse(const char* what) {
  BSP_LOG_ERROR(MOD_BSP, "rpc client call refused: %s", what);
  return Failed(RPC_ERR_FAILED);
}

// Runs `work` and gives its result, or `failed` when it threw: memory or threads ran out.
template <class Result, class Work>
Result Guarded(Result failed, const Work& work) noexcept {
  try {
    return work();
  } catch (const std::exception& failure) {
    BSP_LOG_ERROR(MOD_BSP, "rpc client failed: %s", failure.what());
  } catch (...) {
    BSP_LOG_ERROR(MOD_BSP, "rpc client failed");
  }
  Failed(RPC_ERR_FAILED);
  return failed;
}

// False, with a line, in a forked child for a handle that its parent opened. The line does not go
// through the log, whose clock may be behind a lock that nobody in the child gives back.
bool IsOfThisProcess(const RpcClientC* client) {
  return Guarded(false, [=] {
    const auto error = client->CheckProcess();
    if (error != kOk) printf("rpc client call refused: %s\n", error->Message().c_str());
    return error == kOk;
  });
}

// The object behind a handle; null, with a line, for a null handle and where IsOfThisProcess.
RpcClientC* ClientOf(void* rpc_cli) {
  if (rpc_cli == nullptr) BSP_LOG_ERROR(MOD_BSP, "rpc client is not init");
  auto* const client = static_cast<RpcClientC*>(rpc_cli);
  if (client != nullptr && IsOfThisProcess(client)) return client;
  Failed(RPC_ERR_FAILED);
  return nullptr;
}

}  // namespace

int rpc_client_c_last_error(void) { return t_last_error; }

void* rpc_client_c_open(const char* host, int port) { return rpc_client_c_open_v2(host, port, 0); }

void* rpc_client_c_open_v2(const char* host, int port, int flags) {
  constexpr int kFlags = RPC_OPEN_FAIL_CALLS_ON_DISCONNECT | RPC_OPEN_CONTAIN_FAILURES;
  if (host == nullptr || (flags & ~kFlags) != 0) {
    Refuse(host == nullptr ? "host is null" : "unknown flag");
    return nullptr;
  }
  return Guarded<void*>(nullptr, [&]() -> void* {
    auto client = std::make_unique<RpcClientC>();
    bsp::RpcClient::Options options;
    options.fail_calls_on_disconnect = (flags & RPC_OPEN_FAIL_CALLS_ON_DISCONNECT) != 0;
    options.contain_failures = (flags & RPC_OPEN_CONTAIN_FAILURES) != 0;
    const auto error = client->Start(host, port, options);
    if (error != kOk) {
      BSP_LOG_ERROR(MOD_BSP, "rpc client open failed, host: %s, port: %d", host, port);
      Failed(error->ErrorCode());
      return nullptr;
    }
    BSP_LOG_DEBUG(MOD_BSP, "rpc client init success, host: %s, port: %d", host, port);
    return client.release();
  });
}

void rpc_client_c_close(void* rpc_cli) {
  auto* client = static_cast<RpcClientC*>(rpc_cli);
  if (client == nullptr) return;
  if (client->IsOwnThread()) {
    Refuse("close from a handler of the same handle");
    return;
  }
  Guarded(0, [=] {
    const bool is_inherited = client->CheckProcess() != kOk;
    client->Stop();
    if (is_inherited) {
      bsp::KeepForGood(client);
    } else {
      delete client;
    }
    return 0;
  });
}

int rpc_client_c_is_connected(void* rpc_cli) {
  if (rpc_cli == nullptr) Refuse("rpc client is not init");
  return rpc_cli != nullptr && static_cast<RpcClientC*>(rpc_cli)->IsConnected() ? 1 : 0;
}

int rpc_client_c_listen_v1(void* rpc_cli, const char* cmd, int type, int power,
                           RpcClientHandler handler, void* user_data) {
  RpcClientC* client = ClientOf(rpc_cli);
  if (client == nullptr) return -1;
  if (cmd == nullptr) return Refuse("cmd is null");
  if (handler == nullptr) return Refuse("handler is null");
  return Guarded(-1, [&] {
    const auto error = client->Listen(cmd, type, power, handler, user_data);
    if (error == kOk) return 0;
    BSP_LOG_ERROR(MOD_BSP, "rpc client listen failed err: %d, cmd: %s, type: %d",
                  error->ErrorCode(), cmd, type);
    return Failed(error->ErrorCode());
  });
}

int rpc_client_c_check_cmd_power(void* rpc_cli, const char* cmd) {
  RpcClientC* client = ClientOf(rpc_cli);
  if (client == nullptr) return -1;
  if (cmd == nullptr) return Refuse("cmd is null");
  return Guarded(-1, [&] {
    int type = -1;
    int power = -1;
    const auto error = client->CheckCmdPower(cmd, type, power);
    if (error == kOk) return power;
    BSP_LOG_ERROR(MOD_BSP, "rpc client check cmd power failed err: %d, cmd: %s", error->ErrorCode(),
                  cmd);
    return Failed(error->ErrorCode());
  });
}

int rpc_client_c_send_request(void* rpc_cli, const char* cmd, const char* req, int req_length,
                              char* resp, int resp_size, int timeout_ms) {
  RpcClientC* client = ClientOf(rpc_cli);
  if (client == nullptr) return -1;
  if (cmd == nullptr) return Refuse("cmd is null");
  if (req_length < 0) return Refuse("req_length is negative");
  if (req == nullptr && req_length > 0) return Refuse("req is null");
  if (resp_size < 0) return Refuse("resp_size is negative");
  return Guarded(-1, [&] {
    const std::string request(req == nullptr ? "" : req, static_cast<size_t>(req_length));
    std::string response;
    const auto error = client->SendRequest(cmd, request, response, timeout_ms);
    if (error != kOk) {
      BSP_LOG_ERROR(MOD_BSP,
                    "rpc client send request failed err: %d, cmd: %s, req: %s, timeout_ms: %d",
                    error->ErrorCode(), cmd, request.c_str(), timeout_ms);
      return Failed(error->ErrorCode());
    }
    const size_t length = response.size();
    if (resp != nullptr && length > 0 && length < static_cast<size_t>(resp_size)) {
      memcpy(resp, response.data(), length);
      resp[length] = '\0';
    }
    return static_cast<int>(length);
  });
}

int rpc_client_c_send_message(void* rpc_cli, const char* cmd, const char* message, int length) {
  RpcClientC* client = ClientOf(rpc_cli);
  if (client == nullptr) return -1;
  if (cmd == nullptr) return Refuse("cmd is null");
  return Guarded(-1, [&] {
    std::string text;
    if (message != nullptr && length > 0) text.assign(message, static_cast<size_t>(length));
    const auto error = client->SendMessage(cmd, text);
    if (error == kOk) return 0;
    BSP_LOG_ERROR(MOD_BSP, "rpc client send message failed, cmd: %s", cmd);
    return Failed(error->ErrorCode());
  });
}

int rpc_client_c_flush(void* rpc_cli, int timeout_ms) {
  RpcClientC* client = ClientOf(rpc_cli);
  if (client == nullptr) return -1;
  return Guarded(-1, [&] {
    const auto error = client->Flush(timeout_ms);
    if (error == kOk) return 0;
    BSP_LOG_ERROR(MOD_BSP, "rpc client flush failed err: %d", error->ErrorCode());
    return Failed(error->ErrorCode());
  });
}

int rpc_client_c_send_reply(void* rpc_cli, const RpcHeader* head, const char* data, int length) {
  RpcClientC* client = ClientOf(rpc_cli);
  if (client == nullptr) return -1;
  return Guarded(-1, [&] {
    const auto error = client->SendReplay(head, data, length);
    if (error == kOk) return 0;
    Failed(error->ErrorCode());
    return error->ErrorCode();
  });
}

void rpc_client_c_dump(void* rpc_cli) {
  if (rpc_cli == nullptr) {
    BSP_LOG_ERROR(MOD_BSP, "param rpc_cli is null");
    return;
  }
  auto* const client = static_cast<RpcClientC*>(rpc_cli);
  if (IsOfThisProcess(client)) client->Dump();
}
