// Who pays on the bus: a broker program with its defaults among modules that are slow, mute, gone
// or hostile, and short of memory itself. Whoever keeps to the rules is served throughout.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <set>
#include <thread>

#include "bsp/bsp.h"
#include "tests/support/bus.h"
#include "tests/support/test_env.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::Await;
using test::Broker;
using test::Call;
using test::Child;
using test::kBusPort;
using test::kLive;
using test::kPatienceMs;
using test::Mirror;
using test::OpenClient;
using test::RpcBytes;
using test::RpcCheck;
using test::RpcFrame;
using test::RpcListen;
using test::RpcPeer;
using Options = std::vector<std::string>;

constexpr size_t kHead = sizeof(RpcHeader);
constexpr size_t kMiB = size_t{1} << 20;

// Sends the same frames over and over, as fast as the broker takes them, and reads what comes back.
class Flooder {
 public:
  // `together`: frames of one send call.
  Flooder(int type, const std::string& cmd, size_t payload, size_t together)
      : size_(kHead + payload), peer_(kBusPort) {
    for (size_t i = 0; i < together; ++i) {
      bytes_ += RpcBytes(type, 0, cmd, std::string(payload, 'f'));
    }
    thread_ = std::thread([this] {
      while (!is_over_ && Step()) {
      }
    });
  }
  ~Flooder() {
    is_over_ = true;
    thread_.join();
  }
  Flooder(const Flooder&) = delete;
  Flooder& operator=(const Flooder&) = delete;

  uint64_t bytes() const { return sent_; }
  bool is_lost() const { return is_lost_; }

 private:
  bool Step() {
    const int fd = peer_.descriptor();
    struct pollfd ready = {fd, POLLIN | POLLOUT, 0};
    if (poll(&ready, 1, 100) <= 0) return true;
    static thread_local char trash[65536];
    ssize_t got = 1;
    while (got > 0) got = recv(fd, trash, sizeof trash, MSG_DONTWAIT);
    if (at_ == 0) {  // calls in flight are told apart by their numbers
      for (size_t begin = 0; begin < bytes_.size(); begin += size_) {
        ++seq_;
        memcpy(&bytes_[begin + offsetof(RpcHeader, seq)], &seq_, sizeof seq_);
      }
    }
    const ssize_t put = send(fd, &bytes_[at_], bytes_.size() - at_, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (got == 0 || (put < 0 && errno != EAGAIN)) is_lost_ = true;
    if (put > 0) {
      at_ = (at_ + static_cast<size_t>(put)) % bytes_.size();
      sent_ += static_cast<uint64_t>(put);
    }
    return !is_lost_;
  }

  const size_t size_;
  std::string bytes_;
  size_t at_ = 0;
  uint32_t seq_ = 0;
  RpcPeer peer_;
  std::atomic<uint64_t> sent_{0};
  std::atomic<bool> is_lost_{false};
  std::atomic<bool> is_over_{false};
  std::thread thread_;
};

// What `callers` threads get, code by count, each calling `rounds` times, on one connection or each
// on its own. A good answer to another question counts as 9999.
std::map<int, int> CallTogether(int callers, bool share, const char* cmd, size_t size, int rounds,
                                int timeout_ms) {
  std::map<int, int> codes;
  std::mutex mutex;
  std::deque<std::shared_ptr<bsp::RpcClient>> clients(1, OpenClient(true));
  while (!share && clients.size() < static_cast<size_t>(callers)) {
    clients.push_back(OpenClient(true));
  }
  std::vector<std::thread> threads;
  for (int i = 0; i < callers; ++i) {
    threads.emplace_back([&, client = clients[share ? 0 : static_cast<size_t>(i)].get(),
                          text = std::string(size, static_cast<char>('0' + i))] {
      for (int round = 0; round < rounds; ++round) {
        std::string answer;
        int code = Call(client, cmd, text, &answer, timeout_ms);
        if (code == 0 && answer != text + '\0') code = 9999;
        const std::lock_guard<std::mutex> lock(mutex);
        ++codes[code];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  return codes;
}

// 64 MB of honest calls in flight are no attack: all are answered. A listener that cannot keep up
// costs some of its callers a refusal at most, told long before their time is out, and is still
// there afterwards.
TEST(BusPolicy, HonestLoadIsServed) {
  NEED_PRIVATE_WORLD();
  for (const Options& options : {Options(), Options{"--stock"}}) {
    Broker broker(options);
    const Mirror mirror("mirror");
    ASSERT_TRUE(mirror.is_up());
    EXPECT_EQ(CallTogether(64, true, "mirror", 1000000, 3, kPatienceMs),
              (std::map<int, int>{{0, 192}}))
        << broker.process.output();
  }
  Broker broker;
  const Mirror slow("slow", 2000);
  for (const bool share : {true, false}) {
    auto codes = CallTogether(64, share, "slow", 200000, 5, 20000);
    EXPECT_GE(codes[0], 80);  // what fits at once is answered in each of the five rounds
    EXPECT_EQ(codes[0] + codes[RPC_ERR_BUSY], 320) << testing::PrintToString(codes);
  }
  std::string answer;
  EXPECT_EQ(Call(OpenClient().get(), "slow", "still there", &answer), 0);
}

// A limit of bytes counts what a socket has refused, not what waits to be offered to it; at the
// limit a request is answered in a word, and a small sender still has room beside a large one.
TEST(BusPolicy, BacklogRefusesFramesNotPeers) {
  NEED_PRIVATE_WORLD();
  Broker broker({"--max-backlog", "65536", "--max-frame", "65536"});
  RpcPeer listener(kBusPort);
  RpcPeer sender(kBusPort);
  ASSERT_EQ(listener.Ask(RpcListen("news", RPC_TYPE_MESSAGE, 0, kLive)), 0);
  ASSERT_EQ(listener.Ask(RpcListen("job", RPC_TYPE_REQUEST, 0, kLive)), 0);
  RpcFrame got;
  for (const size_t size : {size_t{1000}, size_t{16384}, size_t{16385}, size_t{65536}}) {
    std::string burst;  // one delivery, far above the limit
    const auto count = static_cast<uint32_t>(200000 / size);
    for (uint32_t seq = 0; seq < count; ++seq) {
      burst += RpcBytes(RPC_TYPE_MESSAGE, seq, "news", std::string(size - kHead, 'n'));
    }
    ASSERT_TRUE(sender.Send(burst));
    for (uint32_t seq = 0; seq < count; ++seq) {
      ASSERT_TRUE(listener.Read(&got)) << size << ": " << broker.process.output();
      ASSERT_EQ(got.head.seq, seq) << size;
    }
  }
  // From here on the listener is mute. All that the kernel and the limit hold stays unanswered.
  constexpr uint32_t kRequests = 1000;
  for (uint32_t seq = 0; seq < kRequests; ++seq) {
    ASSERT_TRUE(sender.Send(RpcBytes(RPC_TYPE_REQUEST, seq, "job", std::string(30000, 'r'))));
  }
  ASSERT_TRUE(sender.Send(RpcCheck("no such command")));
  uint32_t refused = 0;
  while (sender.Read(&got) && got.head.err_code == RPC_ERR_BUSY) ++refused;
  EXPECT_EQ(got.head.err_code, RPC_ERR_NOT_FOUND) << broker.process.output();
  EXPECT_GT(refused, 500u);
  EXPECT_LT(refused, kRequests);
  RpcPeer small(kBusPort);
  ASSERT_TRUE(small.Send(RpcBytes(RPC_TYPE_REQUEST, 1, "job", "small")));
  EXPECT_TRUE(small.IsServed());  // and no refusal before
  // It reads again: what was not refused is there, in order.
  for (uint32_t count = 0; count <= kRequests - refused; ++count) {
    ASSERT_TRUE(listener.Read(&got)) << count;
  }
  EXPECT_EQ(got.payload, "small");
}

// The last call and the last command within a limit pass, the next is answered with a refusal, and
// there is room again when one has ended.
TEST(BusPolicy, CountsAreRefusedBeyondTheirLimit) {
  NEED_PRIVATE_WORLD();
  Broker broker({"--max-calls", "8", "--max-commands", "2"});
  RpcPeer listener(kBusPort);
  ASSERT_EQ(listener.Ask(RpcListen("job", RPC_TYPE_REQUEST, 0, kLive)), 0);
  ASSERT_EQ(listener.Ask(RpcListen("other", RPC_TYPE_REQUEST, 0, kLive)), 0);
  EXPECT_EQ(listener.Ask(RpcListen("third", RPC_TYPE_REQUEST, 0, kLive)), RPC_ERR_BUSY);
  EXPECT_EQ(listener.Ask(RpcListen("job", RPC_TYPE_REQUEST, 0, kLive)), 0);  // has it already
  RpcPeer caller(kBusPort);
  std::deque<RpcFrame> requests(8);
  for (uint32_t seq = 0; seq < 8; ++seq) {
    ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_REQUEST, seq, "job", "text")));
    ASSERT_TRUE(listener.Read(&requests[seq]));
  }
  RpcFrame got;
  EXPECT_EQ(caller.Ask(RpcBytes(RPC_TYPE_REQUEST, 8, "other", "text"), &got), RPC_ERR_BUSY);
  EXPECT_EQ(got.head.seq, 8u);
  RpcPeer second(kBusPort);  // the limit is each client's own
  ASSERT_TRUE(second.Send(RpcBytes(RPC_TYPE_REQUEST, 0, "job", "second")));
  ASSERT_TRUE(listener.Read(&got));
  EXPECT_EQ(got.payload, "second");
  ASSERT_TRUE(listener.Send(test::RpcReply(requests[5], 0, "done")));
  ASSERT_TRUE(caller.Read(&got));
  EXPECT_EQ(got.head.seq, 5u);
  ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_REQUEST, 9, "job", "again")));
  ASSERT_TRUE(listener.Read(&got));
  EXPECT_EQ(got.payload, "again");
}

// The least memory that is accepted lets the largest frame pass. Beyond that, frames that never
// become whole are given up when others need their memory; their senders are told, and served again
// once they have sent the rest.
TEST(BusPolicy, StandingHalfFramesGiveWay) {
  NEED_PRIVATE_WORLD();
  const std::string frame =
      RpcBytes(RPC_TYPE_REQUEST, 1, "mirror", std::string(4 * kMiB - kHead, 's'));
  for (const size_t standing_count : {0, 6}) {
    Broker broker(
        {"--max-clients", "85", "--max-memory", std::to_string((17 + 2 * standing_count) * kMiB)});
    const Mirror mirror("mirror", 0, RPC_TYPE_REQUEST, 10);
    std::deque<RpcPeer> standing;
    for (size_t i = 0; i < standing_count; ++i) {
      ASSERT_TRUE(standing.emplace_back(kBusPort).Send(frame.substr(0, 2 * kMiB)));
    }
    RpcPeer needy(kBusPort);
    int code = RPC_ERR_BUSY;
    EXPECT_TRUE(Await([&] { return (code = needy.Ask(frame)) != RPC_ERR_BUSY; }));
    EXPECT_EQ(code, 0);
    size_t given_up = 0;
    for (RpcPeer& peer : standing) {
      RpcFrame got;
      ASSERT_TRUE(peer.Send(frame.substr(2 * kMiB)) && peer.Read(&got));
      EXPECT_EQ(got.head.seq, 1u);
      EXPECT_TRUE(got.head.err_code == 0 || got.head.err_code == RPC_ERR_BUSY);
      given_up += got.head.err_code == 0 ? 0 : 1;
      EXPECT_TRUE(peer.IsServed());
    }
    EXPECT_EQ(given_up > 0, standing_count > 0);
  }
}

// Whoever floods is refused and read more slowly; the listener that reads stays, and the calls of a
// small sender to the same listener come through.
TEST(BusPolicy, ReadingListenerSurvivesAnyFlood) {
  NEED_PRIVATE_WORLD();
  Broker broker;
  const Mirror mirror("mirror", 0, RPC_TYPE_REQUEST, 1000);
  const Mirror news("news", 0, RPC_TYPE_MESSAGE);
  ASSERT_TRUE(mirror.is_up() && news.is_up());
  std::deque<Flooder> flooders;
  for (const int type : {RPC_TYPE_REQUEST, RPC_TYPE_MESSAGE}) {
    const char* const cmd = type == RPC_TYPE_REQUEST ? "mirror" : "news";
    flooders.emplace_back(type, cmd, 100, 300);
    flooders.emplace_back(type, cmd, 1000000, 1);
  }
  const auto client = OpenClient(true);
  std::string answer;
  const auto is_flooded = [&] {
    return std::all_of(flooders.begin(), flooders.end(),
                       [](const Flooder& flooder) { return flooder.bytes() > 4 * kMiB; });
  };
  const int goal = test::kIsSanitized ? 5 : 20;  // each behind some MiB of the flood
  int calls = 0;
  ASSERT_TRUE(Await([&] {
    EXPECT_EQ(Call(client.get(), "mirror", "small", &answer), 0);
    return testing::Test::HasFailure() || (++calls >= goal && is_flooded());
  }));
  for (const Flooder& flooder : flooders) EXPECT_FALSE(flooder.is_lost());
  flooders.clear();
  EXPECT_EQ(Call(client.get(), "mirror", "after", &answer), 0) << broker.process.output();
  EXPECT_GT(news.frames(), 0u);
  ASSERT_EQ(client->SendMessage("news", "after"), nullptr);
  int type = 0;
  int power = 0;
  EXPECT_EQ(client->CheckCmdPower("news", type, power), nullptr);
}

// A listener that does not read costs its senders a moment, not their other calls; it is dropped
// when it has taken nothing for the stall time, and one that reads slowly never is.
TEST(BusPolicy, MuteListenerCostsNothingLasting) {
  NEED_PRIVATE_WORLD();
  Broker broker({"--stall-timeout", "3"});
  const Mirror mirror("mirror");
  RpcPeer mute(kBusPort);
  RpcPeer slow(kBusPort);
  for (RpcPeer* listener : {&mute, &slow}) {
    ASSERT_EQ(listener->Ask(RpcListen("news", RPC_TYPE_MESSAGE, 0, kLive)), 0);
  }
  ASSERT_EQ(mute.Ask(RpcListen("mute", RPC_TYPE_REQUEST, 0, kLive)), 0);
  ASSERT_EQ(slow.Ask(RpcListen("slow", RPC_TYPE_REQUEST, 0, kLive)), 0);
  const auto client = OpenClient(true);
  RpcPeer waiting(kBusPort);  // with a call that the mute one never sees
  ASSERT_TRUE(waiting.Send(RpcBytes(RPC_TYPE_REQUEST, 77, "mute", "text")));
  const auto begin = steady_clock::now();
  std::string answer;
  for (int i = 0; i < 40; ++i) {
    ASSERT_EQ(client->SendMessage("mute", std::string(1000000, 'm')), nullptr);
    ASSERT_EQ(Call(client.get(), "mirror", "text", &answer, 20000), 0) << i;
  }
  EXPECT_LT(steady_clock::now() - begin, seconds(20));  // each waited for would cost its seconds

  std::atomic<bool> is_over{false};
  std::atomic<uint64_t> bytes_read{0};
  std::thread slow_reader([&] {
    std::string bytes(kMiB, '\0');
    while (!is_over) {
      const ssize_t got = recv(slow.descriptor(), &bytes[0], bytes.size(), MSG_DONTWAIT);
      if (got > 0) bytes_read += static_cast<uint64_t>(got);
      std::this_thread::sleep_for(milliseconds(200));
    }
  });
  Flooder flooder(RPC_TYPE_MESSAGE, "news", 64 * 1024, 4);
  const auto earliest = steady_clock::now() + seconds(7);
  int type = 0;
  int power = 0;
  EXPECT_TRUE(Await([&] {
    EXPECT_EQ(Call(client.get(), "mirror", "text", &answer, 20000), 0);
    return test::CodeOf(client->CheckCmdPower("mute", type, power)) == RPC_ERR_NOT_FOUND &&
           steady_clock::now() > earliest;
  }));
  EXPECT_FALSE(flooder.is_lost());
  EXPECT_GT(flooder.bytes(), 12 * kMiB);  // else nothing was waiting for the slow one
  EXPECT_EQ(client->CheckCmdPower("slow", type, power), nullptr) << broker.process.output();
  is_over = true;
  slow_reader.join();
  EXPECT_GT(bytes_read, 4 * kMiB);
  RpcFrame got;
  ASSERT_TRUE(waiting.Read(&got));
  EXPECT_EQ(got.head.err_code, RPC_ERR_LISTENER_GONE);
  EXPECT_EQ(got.head.seq, 77u);
}

// The death of a listener is told to each of its callers at once, once, with the call it belongs
// to. The plain broker leaves them to their time-outs.
TEST(BusPolicy, CallersOfADeadListenerAreTold) {
  NEED_PRIVATE_WORLD();
  for (const bool is_stock : {false, true}) {
    Broker broker(is_stock ? Options{"--stock"} : Options());
    Child module = Child::Fork([] {
      RpcPeer listener(kBusPort);
      if (listener.Ask(RpcListen("job", RPC_TYPE_REQUEST, 0, getpid())) == 0) puts("up");
      RpcFrame request;
      for (int i = 0; i < 101; ++i) listener.Read(&request);
      puts("all");
      return pause();
    });
    ASSERT_TRUE(module.WaitForLine("up"));
    RpcPeer caller(kBusPort);
    for (uint32_t seq = 0; seq < 100; ++seq) {
      ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_REQUEST, seq, "job", std::string(seq, 'x'))));
    }
    int code = 0;
    std::thread client_call([&] {
      std::string answer;
      code = Call(OpenClient().get(), "job", "text", &answer, is_stock ? 500 : kPatienceMs);
    });
    EXPECT_TRUE(module.WaitForLine("all"));
    module.Signal(SIGKILL);
    RpcFrame got;
    std::set<uint32_t> told;
    for (int i = 0; i < 100 && !is_stock && caller.Read(&got); ++i) {
      EXPECT_EQ(got.head.type, RPC_TYPE_REPLAY);
      EXPECT_EQ(got.head.err_code, RPC_ERR_LISTENER_GONE);
      EXPECT_EQ(got.payload, "");
      told.insert(got.head.seq);
    }
    EXPECT_EQ(told.size(), is_stock ? 0u : 100u);
    client_call.join();
    EXPECT_EQ(code, is_stock ? RPC_ERR_TIMEOUT : RPC_ERR_LISTENER_GONE);
    EXPECT_TRUE(caller.IsServed());  // and nothing in front of that
  }
}

// A reply counts once, and only from the listener that got the request. The plain broker passes on
// what comes.
TEST(BusPolicy, ForgedRepliesAreDropped) {
  NEED_PRIVATE_WORLD();
  for (const bool is_stock : {false, true}) {
    Broker broker(is_stock ? Options{"--stock"} : Options());
    RpcPeer listener(kBusPort);
    RpcPeer forger(kBusPort);
    RpcPeer caller(kBusPort);
    ASSERT_EQ(listener.Ask(RpcListen("job", RPC_TYPE_REQUEST, 0, kLive)), 0);
    ASSERT_EQ(forger.Ask(RpcListen("forged", RPC_TYPE_REQUEST, 0, kLive)), 0);
    ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_REQUEST, 7, "job", "text")));
    RpcFrame request;
    ASSERT_TRUE(listener.Read(&request));
    RpcFrame other_call = request;
    other_call.head.seq = 8;
    RpcFrame nobody = request;
    nobody.head.cli_hdl = request.head.cli_hdl + (int64_t{1} << 32);  // the descriptor, cut to 32
    const struct {
      RpcPeer* from;
      const RpcFrame& reply;
      const char* text;
    } replies[] = {{&forger, request, "forged"},          {&forger, other_call, "forged"},
                   {&listener, other_call, "of no call"}, {&forger, nobody, "forged"},
                   {&listener, request, "true"},          {&listener, request, "twice"}};
    RpcFrame got;
    for (const auto& reply : replies) {
      ASSERT_TRUE(reply.from->Send(test::RpcReply(reply.reply, 0, reply.text)));
      ASSERT_TRUE(reply.from->IsServed());  // it has been handled
      if (!is_stock && std::string(reply.text) != "true") continue;
      ASSERT_TRUE(caller.Read(&got));
      EXPECT_EQ(got.payload, reply.text);
    }
    EXPECT_TRUE(caller.IsServed());
  }
}

// Sends what the broker takes and no more, without waiting for it.
void Offer(RpcPeer* peer, const std::string& bytes) {
  size_t at = 0;
  struct pollfd ready = {peer->descriptor(), POLLOUT, 0};
  while (at < bytes.size() && poll(&ready, 1, 20) == 1) {
    const ssize_t put = send(ready.fd, &bytes[at], bytes.size() - at, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (put <= 0) return;
    at += static_cast<size_t>(put);
  }
}

// A line of /proc/PID/status that counts in kB.
size_t StatusKb(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string word;
  size_t kb = 0;
  while (status >> word && word != name + ":") {
  }
  status >> kb;
  return kb;
}

// A thousand peers that hold what they can: half heads, half frames, garbage, and listeners of a
// flooded command that never read. The broker stays within its budget, serves those who keep to the
// rules all the while, and is small again when they have gone.
TEST(BusPolicy, ThousandHostilePeersStayWithinTheBudget) {
  NEED_PRIVATE_WORLD();
  if (!test::HasDescriptors(1200)) GTEST_SKIP() << "needs 1200 descriptors";
  Broker broker({"--max-clients", "1100"});
  const Mirror mirror("mirror");
  const auto client = OpenClient(true);
  const std::string half_head = RpcCheck("x").substr(0, 50);
  const std::string large =
      RpcBytes(RPC_TYPE_REQUEST, 1, "mirror", std::string(4 * kMiB - kHead, 'l'))
          .substr(0, 3 * kMiB);
  const std::string medium =
      RpcBytes(RPC_TYPE_REQUEST, 1, "mirror", std::string(31 * 1024, 'm')).substr(0, 31 * 1024);
  const std::string garbage(60000, 'g');
  std::deque<RpcPeer> peers;
  std::deque<Flooder> flooders;
  const auto is_served = [&] {
    std::string answer;
    return Call(client.get(), "mirror", std::string(2000, 'h'), &answer) == 0;
  };
  for (int i = 0; i < 1000; ++i) {
    RpcPeer& peer = peers.emplace_back(kBusPort);
    if (i % 50 < 3) {
      ASSERT_TRUE(peer.Send(RpcListen("flooded", RPC_TYPE_MESSAGE, 0, kLive)));
    } else {
      Offer(&peer, i % 50 < 6 ? large : i % 50 < 20 ? half_head : i % 50 < 36 ? medium : garbage);
    }
    if (i == 100) flooders.emplace_back(RPC_TYPE_MESSAGE, "flooded", 60000, 4);
    if (i % 20 == 0) {
      ASSERT_TRUE(Await(is_served)) << i << ": " << broker.process.output();
    }
  }
  ASSERT_TRUE(Await([&] { return is_served() && flooders.front().bytes() > 100 * kMiB; }));
  EXPECT_FALSE(flooders.front().is_lost());
  const pid_t pid = broker.process.pid();
  if (!test::kIsSanitized) {
    EXPECT_LT(StatusKb(pid, "VmHWM"), 48 * 1024 * 11 / 10);
  }
  flooders.clear();
  peers.clear();
  EXPECT_TRUE(test::kIsSanitized || Await([&] { return StatusKb(pid, "VmRSS") < 40 * 1024; }))
      << StatusKb(pid, "VmRSS");
  EXPECT_TRUE(is_served());
}

// When idle peers have taken every place that they can have, an operator's tool still gets in.
TEST(BusPolicy, LastPlacesAreForTheOperator) {
  NEED_PRIVATE_WORLD();
  Broker broker({"--max-clients", "64"});
  std::deque<RpcPeer> peers;
  for (int i = 0; i < 80; ++i) peers.emplace_back(kBusPort).IsServed();
  for (int turn = 0; turn < 3; ++turn) {
    ASSERT_TRUE(Await([&] {
      return Child::Run({BSP_TEST_BIN_DIR "/bspctl", "rpc", "check", "none"}).Wait() == 3;
    })) << broker.process.output();
  }
  int served = 0;
  for (RpcPeer& peer : peers) served += peer.IsServed() ? 1 : 0;
  EXPECT_GE(served, 32);
  EXPECT_LE(served, 64);
}

// A newcomer takes a command over from a listener whose end is in the kernel but not yet noticed,
// and is refused while bytes of a live one wait there. What the stopped broker finds is the
// newcomer's frame first, the rest behind it.
TEST(BusPolicy, TakeoverFromAStaleListener) {
  NEED_PRIVATE_WORLD();
  enum Deed { kFin, kReset, kUnread };
  for (const Deed deed : {kFin, kReset, kUnread}) {
    SCOPED_TRACE(deed);
    Broker broker;
    RpcPeer old(kBusPort);
    RpcPeer heir(kBusPort);
    RpcPeer caller(kBusPort);
    ASSERT_EQ(old.Ask(RpcListen("job", RPC_TYPE_REQUEST, 1, kLive)), 0);
    ASSERT_TRUE(caller.Send(RpcBytes(RPC_TYPE_REQUEST, 5, "job", "text")));
    ASSERT_TRUE(caller.Send(RpcCheck("none")));
    RpcFrame got;
    ASSERT_TRUE(caller.Read(&got));
    ASSERT_TRUE(heir.IsServed());
    // A close with bytes that nobody has read resets the connection.
    ASSERT_TRUE(deed == kReset || old.Read(&got));
    broker.process.Stop();
    ASSERT_TRUE(heir.Send(RpcListen("job", RPC_TYPE_REQUEST, 2, kLive)));
    deed == kUnread ? static_cast<void>(old.Send(RpcCheck("none"))) : old.Close();
    broker.process.Signal(SIGCONT);
    ASSERT_TRUE(heir.Read(&got));
    EXPECT_EQ(got.head.err_code, deed == kUnread ? RPC_ERR_TAKEN : 0);
    if (deed != kUnread) {
      ASSERT_TRUE(caller.Read(&got));
      EXPECT_EQ(got.head.err_code, RPC_ERR_LISTENER_GONE);
      EXPECT_EQ(got.head.seq, 5u);
      continue;
    }
    EXPECT_TRUE(old.Read(&got));
    old.Close();
    ASSERT_TRUE(Await([&] { return heir.Ask(RpcListen("job", RPC_TYPE_REQUEST, 2, kLive)) == 0; }));
  }
}

// The frames that come together with their sender's close are handled, whatever their size; the
// plain broker loses them alike.
TEST(BusPolicy, LastFramesOfAllSizesFareAlike) {
  NEED_PRIVATE_WORLD();
  for (const bool is_stock : {false, true}) {
    Broker broker(is_stock ? Options{"--stock"} : Options());
    RpcPeer listener(kBusPort);
    RpcPeer after(kBusPort);
    ASSERT_EQ(listener.Ask(RpcListen("news", RPC_TYPE_MESSAGE, 0, kLive)), 0);
    for (const size_t size : {size_t{10}, size_t{40000}}) {
      RpcPeer sender(kBusPort);
      ASSERT_TRUE(sender.IsServed());
      broker.process.Stop();
      ASSERT_TRUE(sender.Send(RpcBytes(RPC_TYPE_MESSAGE, 1, "news", std::string(size, 'l'))));
      sender.Close();
      broker.process.Signal(SIGCONT);
      ASSERT_TRUE(after.IsServed());
      ASSERT_TRUE(after.Send(RpcBytes(RPC_TYPE_MESSAGE, 2, "news", "after")));
      RpcFrame got;
      ASSERT_TRUE(listener.Read(&got));
      EXPECT_EQ(got.head.seq, is_stock ? 2u : 1u) << size;
      ASSERT_TRUE(is_stock || listener.Read(&got));
    }
  }
}

}  // namespace
