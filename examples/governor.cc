// Listens to the samples, decides on thresholds how fast the fan should run, and calls the actuator
// when that changes.
//
//   governor PORT [-p LEVEL]     PORT: where bsp-broker listens on 127.0.0.1
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/bsp.h"
#include "bsp/event/eventservice.h"
#include "bsp/net/rpc/rpc_client.h"
#include "bsp/net/rpc/rpc_header.h"

namespace {

constexpr const char* kTag = "GOVERNOR";
constexpr const char* kSamples = "device.sample";
constexpr const char* kFan = "fan.set";
constexpr int kCallTimeoutMs = 1000;
constexpr int kFlowFan = 1;  // id of the flow under which the log server files it

// CPU load in percent from which a fan speed in percent applies; the last row that fits counts.
constexpr struct {
  int cpu;
  int speed;
} kCurve[] = {{0, 20}, {10, 40}, {30, 60}, {60, 80}, {85, 100}};

int SpeedFor(int cpu) {
  int speed = 0;
  for (const auto& step : kCurve) {
    if (cpu >= step.cpu) speed = step.speed;
  }
  return speed;
}

// The bus thread delivers samples and must not wait for a reply, so decisions run on a thread of
// their own.
class Governor : public sigslot::has_slots<sigslot::single_threaded> {
 public:
  explicit Governor(std::shared_ptr<bsp::RpcClient> bus)
      : bus_(std::move(bus)), decisions_(bsp::EventService::Create("governor", 20)) {
    decisions_->Start();
  }

  void HandleMessage(std::shared_ptr<bsp::RpcClient>, RpcHeader* head) {
    const std::string sample(reinterpret_cast<const char*>(head) + sizeof *head,
                             static_cast<size_t>(head->size) - sizeof *head);
    decisions_->Post(1, [this, sample](bsp::Message*) { Decide(sample); });
  }

  void Stop() { decisions_->Stop(); }

 private:
  void Decide(const std::string& sample) {
    unsigned long number = 0;
    int cpu = 0;
    if (sscanf(sample.c_str(), "n=%lu cpu=%d", &number, &cpu) != 2) {
      BSP_LOG_ERROR(kTag, "not a sample: %s", sample.c_str());
      return;
    }
    const int speed = SpeedFor(cpu);
    // Also repeated now and then: a restarted actuator has forgotten its speed.
    if (speed == speed_ && number % 3 != 0) return;
    std::string response;
    BSP_TRACE(static_cast<int64_t>(number), kFlowFan, "call %s, speed=%d", kFan, speed);
    const auto error =
        bus_->SendRequest(kFan, "speed=" + std::to_string(speed), response, kCallTimeoutMs);
    if (error != nullptr) {
      speed_ = -1;
      BSP_LOG_WARN(kTag, "fan does not answer, code %d", error->ErrorCode());
      BSP_SYSTEM(BSP_LEVEL_WARN, "fan does not answer, code %d", error->ErrorCode());
      return;
    }
    speed_ = speed;
    BSP_LOG_INFO(kTag, "cpu %d%% -> fan %d%%, answer: %s", cpu, speed, response.c_str());
    BSP_CONTROL(kFlowFan, "cpu %d%%, fan set to %d%%", cpu, speed);
  }

  std::shared_ptr<bsp::RpcClient> bus_;
  int speed_ = -1;  // last one that the actuator took; of the decisions' thread
  std::shared_ptr<bsp::EventService> decisions_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: governor PORT [-p LEVEL]\n");
    return 2;
  }
  // Awaited below, and blocked before any thread exists so that none is interrupted.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  setvbuf(stdout, nullptr, _IOLBF, 0);

  const auto port = static_cast<uint16_t>(atoi(argv[1]));
  if (log_init(argc, argv, 0) != 0) return 1;
  auto bus = std::make_shared<bsp::RpcClient>();
  auto error = bus->Open("127.0.0.1", port);
  if (error != nullptr) {
    fprintf(stderr, "governor: %s", error->Message().c_str());
    return 1;
  }
  Governor governor(bus);
  bus->SignalMessage.connect(&governor, &Governor::HandleMessage);
  error = bus->Listen(kSamples, RPC_TYPE_MESSAGE, 0);
  if (error != nullptr) {
    fprintf(stderr, "governor: %s", error->Message().c_str());
    return 1;
  }

  BSP_CONTROL(0, "governor starts, pid %d", static_cast<int>(getpid()));
  const struct timespec second = {1, 0};
  while (sigtimedwait(&ends, nullptr, &second) == -1) BSP_FEED_DOG();
  BSP_CONTROL(0, "governor ends");
  bus->Close();  // no sample comes in behind this
  governor.Stop();
  log_deinit();
  return 0;
}
