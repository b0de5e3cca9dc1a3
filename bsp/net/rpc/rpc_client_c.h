// RpcClientC: what stands behind the handle of the flat functions of the bus (bsp/bsp.h).
#ifndef BSP_NET_RPC_RPC_CLIENT_C_H_
#define BSP_NET_RPC_RPC_CLIENT_C_H_

#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/bsp.h"
#include "bsp/net/rpc/rpc_client.h"

// An RpcClient, a handler a command, and one response buffer for all of them. Failures of the
// client are passed on wrapped, with their code.
//
// Threads: as RpcClient. Handlers run on its thread, one at a time.
class BSP_EXPORT RpcClientC : public sigslot::has_slots<sigslot::single_threaded> {
 public:
  struct MsgProcInfo {
    RpcClientHandler func;
    void* user_data;  // shown by Dump only
  };

  RpcClientC();
  // Ends the thread first, so that no handler runs when the rest goes.
  ~RpcClientC() override;
  RpcClientC(const RpcClientC&) = delete;
  RpcClientC& operator=(const RpcClientC&) = delete;

  std::shared_ptr<MSError> Start(const std::string& host, int port);
  std::shared_ptr<MSError> Start(const std::string& host, int port,
                                 const bsp::RpcClient::Options& options);

  std::shared_ptr<MSError> Listen(const char* cmd, int type, int power, RpcClientHandler handler,
                                  void* user_data);
  std::shared_ptr<MSError> CheckCmdPower(const char* cmd, int& type, int& power);
  std::shared_ptr<MSError> SendRequest(const char* cmd, const std::string& request,
                                       std::string& response, int timeout_ms);
  std::shared_ptr<MSError> SendMessage(const char* cmd, const std::string& message);
  std::shared_ptr<MSError> SendReplay(const RpcHeader* head, const char* data, int length);
  std::shared_ptr<MSError> Flush(int timeout_ms);
  bool IsConnected() const;
  bool IsOwnThread() const;  // in a handler
  void Dump();

  // Slots of the client, on its thread.
  void HandleMessage(std::shared_ptr<bsp::RpcClient> client, RpcHeader* head);
  void HandleError(std::shared_ptr<bsp::RpcClient> client, std::shared_ptr<MSError> error);

 private:
  RpcClientHandler HandlerOf(const char (&cmd)[64]);

  std::shared_ptr<bsp::RpcClient> rpc_client_;
  struct FreeBuffer {
    void operator()(char* buffer) const { free(buffer); }
  };
  std::unique_ptr<char, FreeBuffer> resp_buf_;  // zero until used; of the rpc_cli thread
  std::mutex handlers_mutex_;                   // guards handlers_; not held while a handler runs
  std::map<std::string, MsgProcInfo, std::less<>> handlers_;  // by the name that travels
};

#endif  // BSP_NET_RPC_RPC_CLIENT_C_H_
