// The smallest module that answers a command, in C++: listener_cpp PORT, until SIGTERM or SIGINT.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/net/rpc/rpc_client.h"
#include "bsp/net/rpc/rpc_header.h"

namespace {

class Greeter : public sigslot::has_slots<sigslot::single_threaded> {
 public:
  // Runs on the bus thread: it may answer and send, and must not wait.
  void Greet(std::shared_ptr<bsp::RpcClient> bus, RpcHeader* head) {
    const std::string text(reinterpret_cast<const char*>(head) + sizeof *head,
                           static_cast<size_t>(head->size) - sizeof *head);
    const std::string answer = "hello " + text;
    bus->SendReplay(head, answer.data(), static_cast<int>(answer.size()));
  }
};

}  // namespace

int main(int argc, char** argv) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, nullptr);  // before the bus thread exists

  Greeter greeter;
  auto bus = std::make_shared<bsp::RpcClient>();
  auto error = bus->Open("127.0.0.1", static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 7800));
  if (error == nullptr) {
    bus->SignalMessage.connect(&greeter, &Greeter::Greet);
    error = bus->Listen("greet", RPC_TYPE_REQUEST, 0);
  }
  if (error != nullptr) {
    fprintf(stderr, "%s", error->Message().c_str());
    return 1;
  }
  puts("listening to greet");
  fflush(stdout);
  int number = 0;
  sigwait(&ends, &number);
  bus->Close();
  return 0;
}
