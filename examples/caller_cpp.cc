// The smallest caller, in C++: caller_cpp PORT TEXT calls the command greet and prints the answer.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/net/rpc/rpc_client.h"

int main(int argc, char** argv) {
  auto bus = std::make_shared<bsp::RpcClient>();
  auto error = bus->Open("127.0.0.1", static_cast<uint16_t>(argc > 1 ? atoi(argv[1]) : 7800));
  std::string answer;
  if (error == nullptr) {
    error = bus->SendRequest("greet", argc > 2 ? argv[2] : "world", answer, 1000);
  }
  bus->Close();
  if (error != nullptr) {
    fprintf(stderr, "%s", error->Message().c_str());
    return 1;
  }
  puts(answer.c_str());  // a zero byte stands behind the answer
  return 0;
}
