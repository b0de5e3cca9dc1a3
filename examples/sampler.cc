// Samples this machine's CPU, memory and network once a second: publishes each sample as a message,
// keeps the last ones in the event cache, and shows the newest as properties.
//
//   sampler PORT [-p LEVEL]     PORT: where bsp-broker listens on 127.0.0.1
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/bsp.h"
#include "bsp/log/log.h"
#include "bsp/net/rpc/rpc_client.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace {

constexpr const char* kTag = "SAMPLER";
constexpr const char* kCommand = "device.sample";
constexpr int kKeptSamples = 16;
constexpr int kInfoBytes = 64;
constexpr int kDataBytes = 640;

struct Counters {
  unsigned long long busy = 0;
  unsigned long long total = 0;
  unsigned long long rx_bytes = 0;
  unsigned long long tx_bytes = 0;
};

// First line of /proc/stat: "cpu user nice system idle iowait irq softirq steal ...", in ticks.
void ReadCpu(Counters* counters) {
  std::ifstream stat("/proc/stat");
  std::string word;
  stat >> word;
  unsigned long long ticks = 0;
  for (int field = 0; field < 8 && stat >> ticks; ++field) {
    counters->total += ticks;
    const bool is_idle = field == 3 || field == 4;
    if (!is_idle) counters->busy += ticks;
  }
}

// Lines of /proc/net/dev: "name: rx_bytes and seven more, tx_bytes ...".
void ReadNetwork(Counters* counters) {
  std::ifstream devices("/proc/net/dev");
  std::string line;
  while (std::getline(devices, line)) {
    const size_t colon = line.find(':');
    if (colon == std::string::npos) continue;
    unsigned long long rx = 0;
    unsigned long long tx = 0;
    if (sscanf(line.c_str() + colon + 1, "%llu %*u %*u %*u %*u %*u %*u %*u %llu", &rx, &tx) != 2) {
      continue;
    }
    counters->rx_bytes += rx;
    counters->tx_bytes += tx;
  }
}

int ReadMemoryPercent() {
  std::ifstream memory("/proc/meminfo");
  std::string name;
  std::string unit;
  long kilobytes = 0;
  long total = 0;
  long available = 0;
  while (memory >> name >> kilobytes && std::getline(memory, unit)) {
    if (name == "MemTotal:") total = kilobytes;
    if (name == "MemAvailable:") available = kilobytes;
  }
  return total > 0 ? static_cast<int>(100 * (total - available) / total) : 0;
}

class Sampler {
 public:
  explicit Sampler(std::shared_ptr<bsp::RpcClient> bus) : bus_(std::move(bus)) { Read(&last_); }

  void Sample() {
    Counters now;
    Read(&now);
    const unsigned long long total = now.total - last_.total;
    const int cpu = total > 0 ? static_cast<int>(100 * (now.busy - last_.busy) / total) : 0;
    const int memory = ReadMemoryPercent();
    const std::string sample =
        bsp::StringHelper::Format("n=%lu cpu=%d mem=%d rx=%llu tx=%llu", ++count_, cpu, memory,
                                  now.rx_bytes - last_.rx_bytes, now.tx_bytes - last_.tx_bytes);
    last_ = now;

    Publish(sample);
    Keep(sample);
    Show("cpu.percent", std::to_string(cpu));
    Show("mem.percent", std::to_string(memory));
    BSP_LOG_DEBUG(kTag, "sample %s", sample.c_str());
  }

  unsigned long count() const { return count_; }

 private:
  static void Read(Counters* counters) {
    ReadCpu(counters);
    ReadNetwork(counters);
  }

  void Publish(const std::string& sample) {
    const auto error = bus_->SendMessage(kCommand, sample);
    if (error != nullptr) BSP_LOG_ERROR(kTag, "not published: %s", error->Message().c_str());
  }

  // The cache refuses what does not fit; then the oldest goes.
  void Keep(const std::string& sample) {
    const std::string info = bsp::TimeUtil::TimeMillisStr();
    for (int tries = 0; tries < 2; ++tries) {
      if (event_cache_write(count_, info.data(), static_cast<int>(info.size()), sample.data(),
                            static_cast<int>(sample.size())) == 0) {
        return;
      }
      event_cache_remove_oldest();
    }
    BSP_LOG_ERROR(kTag, "sample %lu not kept", count_);
  }

  static void Show(const char* key, std::string value) {
    value += '\0';  // the store keeps no lengths
    system_property_set(key, value.data(), static_cast<int>(value.size()));
  }

  std::shared_ptr<bsp::RpcClient> bus_;
  Counters last_;
  unsigned long count_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: sampler PORT [-p LEVEL]\n");
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
  const auto error = bus->Open("127.0.0.1", port);
  if (error != nullptr) {
    fprintf(stderr, "sampler: %s", error->Message().c_str());
    return 1;
  }
  if (event_cache_init_write(kKeptSamples, kInfoBytes, kDataBytes) != 0) return 1;

  BSP_CONTROL(0, "sampler starts, pid %d", static_cast<int>(getpid()));
  Sampler sampler(bus);
  const struct timespec second = {1, 0};
  while (sigtimedwait(&ends, nullptr, &second) == -1) {
    sampler.Sample();
    BSP_FEED_DOG();
  }
  BSP_CONTROL(0, "sampler ends after %lu samples", sampler.count());
  bus->Close();
  log_deinit();
  return 0;
}
