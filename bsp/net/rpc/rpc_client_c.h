// RpcClientC: what stands behind the handle of the flat functions of the bus (bsp/bsp.h).
#ifndef BSP_NET_RPC_RPC_CLIENT_C_H_
#define BSP_NET_RPC_RPC_CLIENT_C_H_

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/base/macros.h"
#include "bsp/base/pi_mutex.h"
#include "bsp/bsp.h"
#include "bsp/net/rpc/rpc_client.h"

// An RpcClient, a handler a command, and one response buffer for all of them. Failures of the
// client are passed on wrapped, with their code.
//
// Threads and forks: as RpcClient. Handlers run on its thread, one at a time.
class BSP_EXPORT RpcClientC : public sigslot::has_slots<sigslot::single_threaded> {
 public:
  struct MsgProcInfo {
    RpcClientHandler func;
    void* user_data;  // shown by Dump only
  };

  RpcClientC();
  // Stops.
  ~RpcClientC() override;
  RpcClientC(const RpcClientC&) = delete;
  RpcClientC& operator=(const RpcClientC&) = delete;

  std::shared_ptr<MSError> Start(const std::string& host, int port);
  std::shared_ptr<MSError> Start(const std::string& host, int port,
                                 const bsp::RpcClient::Options& options);

  // Ends the thread and the connection, so that no handler runs when the rest goes.
  void Stop();

  // The handler is called from the first request on, which may come before this returns; when it
  // fails, the one that was there before is called again.
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
  std::shared_ptr<MSError> CheckProcess() const;
  void Dump();

  // Slots of the client, on its thread.
  void HandleMessage(std::shared_ptr<bsp::RpcClient> client, RpcHeader* head);
  void HandleError(std::shared_ptr<bsp::RpcClient> client, std::shared_ptr<MSError> error);

 private:
  // Of the Listen with this number.
  struct Registration {
    uint64_t listen;
    MsgProcInfo handler;
  };

  uint64_t Enter(const std::string& cmd, const MsgProcInfo& handler);
  // The number of handlers.
  size_t Settle(const std::string& cmd, uint64_t listen, bool is_registered);
  RpcClientHandler HandlerOf(const char (&cmd)[64]);

  // Constant after Start.
  std::shared_ptr<bsp::RpcClient> rpc_client_;
  struct FreeBuffer {
    void operator()(char* buffer) const { free(buffer); }
  };
  std::unique_ptr<char, FreeBuffer> resp_buf_;  // zero until used; its bytes are rpc_cli's

  bsp::PiMutex handlers_mutex_;  // guards the fields below; not held while a handler runs
  // By the name that travels; of equal ones the last counts. There are several while a Listen waits
  // for the broker's word.
  std::multimap<std::string, Registration, std::less<>> handlers_;
  uint64_t last_listen_ = 0;
};

#endif  // BSP_NET_RPC_RPC_CLIENT_C_H_
