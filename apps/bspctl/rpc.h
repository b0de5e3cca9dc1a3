// What the verbs of bspctl rpc share.
#ifndef BSP_APPS_BSPCTL_RPC_H_
#define BSP_APPS_BSPCTL_RPC_H_

#include <memory>
#include <string>

#include "apps/bspctl/ctl.h"
#include "bsp/net/rpc/rpc_client.h"

namespace ctl {

constexpr int kWaitTimedOut = -3;  // RpcClient: no reply in time

// The words of the command line.
struct RpcRequest {
  std::string command;
  std::string payload;
  bool is_hex = false;
  int timeout_ms = 5000;
  std::string kind = "message";
  std::string reply;
  std::string program;
};

// The first line of an error's text.
std::string Text(const std::shared_ptr<MSError>& error);

// Null, with *code set and the reason told, when the bus cannot be reached.
std::shared_ptr<bsp::RpcClient> OpenBus(const Context& context, int* code);

// Tells that the broker has closed the connection: it is gone, or it dropped this client.
int FailLost(const Context& context);

// "message", "request" or the number.
std::string KindText(int kind);

// A payload on standard output: as it is, as hex digits or as JSON.
void PrintPayload(const std::string& payload, const Context& context, bool is_hex);

// The body of "rpc listen".
int Listen(const Context& context, const RpcRequest& request);

}  // namespace ctl

#endif  // BSP_APPS_BSPCTL_RPC_H_
