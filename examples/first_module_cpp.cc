// A whole module in C++: answers the command "hello", logs, feeds the watchdog, ends on SIGTERM.
#include <csignal>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>

#include "bsp/bsp.h"
#include "bsp/net/rpc/rpc_client.h"

class Hello : public sigslot::has_slots<> {
 public:
  // Runs on the thread of the bus.
  void OnFrame(std::shared_ptr<bsp::RpcClient> bus, RpcHeader* head) {
    const auto length = static_cast<size_t>(head->size) - sizeof *head;
    const std::string name(reinterpret_cast<const char*>(head + 1), length);
    BSP_LOG_INFO("HELLO", "%s for %s", head->cmd, name.c_str());
    const std::string answer = "hello " + name;
    bus->SendReplay(head, answer.data(), static_cast<int>(answer.size()));
  }
};

int main(int argc, char** argv) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, nullptr);  // before there is a second thread

  if (log_init(argc, argv, 0) != 0) return 1;
  Hello hello;
  auto bus = std::make_shared<bsp::RpcClient>();
  auto error = bus->Open("127.0.0.1", 7800);
  if (error == nullptr) {
    bus->SignalMessage.connect(&hello, &Hello::OnFrame);
    error = bus->Listen("hello", RPC_TYPE_REQUEST, 0);
  }
  if (error != nullptr) {
    fprintf(stderr, "%s", error->Message().c_str());
    return 1;
  }
  BSP_CONTROL(0, "hello is up");
  const struct timespec second = {1, 0};
  while (sigtimedwait(&ends, nullptr, &second) == -1) BSP_FEED_DOG();
  bus->Close();
  log_deinit();
  return 0;
}
