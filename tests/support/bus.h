// The bus as tests use it: a broker program, clients, and a module that answers.
#ifndef BSP_TESTS_SUPPORT_BUS_H_
#define BSP_TESTS_SUPPORT_BUS_H_

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bsp/net/rpc/rpc_client.h"
#include "tests/support/rpc_peer.h"
#include "tests/support/servers.h"

namespace test {

constexpr int kBusPort = 7800;
constexpr int kLive = 1;  // a pid that is there, and of no test

// Ends well, which it would not if a sanitizer had something to say.
struct Broker {
  explicit Broker(const std::vector<std::string>& options = {},
                  const std::vector<std::string>& words = {})
      : process(StartBroker(options, words)) {}
  ~Broker() { End(); }
  void End() {
    if (process.pid() == -1) return;
    process.Signal(SIGTERM);
    EXPECT_EQ(process.Wait(), 0) << process.output();
  }
  Child process;
};

// Null when no broker is there.
inline std::shared_ptr<bsp::RpcClient> OpenClient(bool fail_on_disconnect = false) {
  auto client = std::make_shared<bsp::RpcClient>();
  bsp::RpcClient::Options options;
  options.fail_calls_on_disconnect = fail_on_disconnect;
  client->SetOptions(options);
  return client->Open("127.0.0.1", kBusPort) == nullptr ? client : nullptr;
}

inline int Call(bsp::RpcClient* client, const char* cmd, const std::string& request,
                std::string* answer, int timeout_ms = kPatienceMs) {
  return CodeOf(client->SendRequest(cmd, request, *answer, timeout_ms));
}

// A module that answers each request of a command with the request, after so much work.
class Mirror : public sigslot::has_slots<> {
 public:
  explicit Mirror(const std::string& cmd, int work_us = 0, int kind = RPC_TYPE_REQUEST,
                  int most = INT_MAX)
      : work_us_(work_us), most_(most) {
    if (client_ == nullptr) return;
    client_->SignalMessage.connect(this, &Mirror::OnFrame);
    is_up_ = client_->Listen(cmd, kind, 0) == nullptr;
  }
  ~Mirror() override {
    if (client_ != nullptr) client_->Close();
  }
  Mirror(const Mirror&) = delete;
  Mirror& operator=(const Mirror&) = delete;

  bool is_up() const { return is_up_; }
  uint64_t frames() const { return frames_; }

 private:
  void OnFrame(std::shared_ptr<bsp::RpcClient> self, RpcHeader* head) {
    ++frames_;
    if (work_us_ != 0) usleep(static_cast<useconds_t>(work_us_));
    if (head->type != RPC_TYPE_REQUEST) return;
    const int length = std::min(head->size - 104, most_);
    self->SendReplay(head, reinterpret_cast<const char*>(head + 1), length);
  }

  const int work_us_;
  const int most_;
  bool is_up_ = false;
  std::atomic<uint64_t> frames_{0};
  const std::shared_ptr<bsp::RpcClient> client_ = OpenClient(true);
};

// True when `is_so` comes true within the time that a busy machine may need.
inline bool Await(const std::function<bool()>& is_so) {
  const auto last = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPatienceMs);
  while (!is_so()) {
    if (std::chrono::steady_clock::now() > last) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return true;
}

// Takes what the system grants; false when that is fewer descriptors.
inline bool HasDescriptors(rlim_t count) {
  struct rlimit limit = {};
  getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  return setrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur >= count;
}

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_BUS_H_
