// The broker program while the system refuses it memory, descriptors and calls.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "bsp/bsp.h"
#include "tests/support/bus.h"
#include "tests/support/faults.h"
#include "tests/support/test_env.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using test::Await;
using test::Broker;
using test::Call;
using test::Child;
using test::Faults;
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

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// Whichever call of its start fails, the broker either serves or ends with 1 and a line: it never
// says that it is ready and is not.
TEST(BrokerFaults, StartServesOrTellsWhyNot) {
  NEED_FAULTS();
  for (const std::string call : {"socket", "bind", "listen", "epoll_create1", "epoll_ctl",
                                 "eventfd", "timerfd_create", "pthread_create", "mmap", "open"}) {
    for (int turn = 1;; ++turn) {
      SCOPED_TRACE(call + " " + std::to_string(turn));
      const std::string number = std::to_string(turn);
      const Faults faults(call + ":ENOMEM:" + number + "-" + number, Faults::From::kStart);
      std::vector<std::string> words = faults.words();
      words.push_back(BSP_TEST_BIN_DIR "/bsp-broker");
      Child broker = Child::Run(words);
      if (broker.WaitForLine("bsp-broker ready on")) {
        // The first peer may be the one that met the fault.
        ASSERT_TRUE(Await([] { return RpcPeer(kBusPort).IsServed(); })) << broker.output();
        broker.Signal(SIGTERM);
        EXPECT_EQ(broker.Wait(), 0) << broker.output();
      } else {
        EXPECT_EQ(broker.Wait(), 1) << broker.output();
        EXPECT_TRUE(Has(broker.output(), "bsp-broker: ")) << broker.output();
      }
      if (faults.Failed(call) == 0) break;  // it makes fewer calls of this kind
    }
  }
}

// A peer that cannot be accepted or watched at the moment is served later or closed, with a line,
// never left waiting; the next one is served.
TEST(BrokerFaults, NoPeerIsLeftWaiting) {
  NEED_FAULTS();
  const struct {
    const char* rule;
    const char* call;
    bool is_served;  // else closed, or served
  } cases[] = {
      {"accept4:ENOBUFS:1-5", "accept4", true},      {"accept4:ENOMEM:1-5", "accept4", true},
      {"accept4:ECONNABORTED:1-1", "accept4", true}, {"accept4:EINTR:1-5", "accept4", true},
      {"accept4:EMFILE:1-4", "accept4", false},      {"epoll_ctl:ENOMEM:1-1", "epoll_ctl", false}};
  for (const auto& use : cases) {
    SCOPED_TRACE(use.rule);
    const Faults faults(use.rule);
    Broker broker({}, faults.words());
    ASSERT_TRUE(RpcPeer(kBusPort).IsServed());
    faults.Begin();
    RpcPeer peer(kBusPort);
    const auto begin = steady_clock::now();
    const bool is_served = peer.IsServed();
    EXPECT_LT(steady_clock::now() - begin, milliseconds(kPatienceMs));
    EXPECT_TRUE(is_served || !use.is_served);
    ASSERT_TRUE(Await([] { return RpcPeer(kBusPort).IsServed(); }));
    EXPECT_GE(faults.Failed(use.call), 1u);
    broker.End();
    EXPECT_TRUE(is_served || Has(broker.process.output(), "<error>")) << broker.process.output();
  }
}

// What the kernel refuses for a moment is tried again, in moderation, and no byte is lost.
TEST(BrokerFaults, MomentaryRefusalsLoseNothing) {
  NEED_FAULTS();
  const struct {
    const char* rule;
    const char* call;
  } cases[] = {{"send:ENOBUFS:1-20", "send"}, {"send:EINTR:1-20", "send"},
               {"send:SHORT:1-1", "send"},    {"recv:EINTR:1-20", "recv"},
               {"recv:ENOBUFS:1-20", "recv"}, {"epoll_wait:EINTR:1-20", "epoll_wait"}};
  for (const auto& use : cases) {
    SCOPED_TRACE(use.rule);
    const Faults faults(use.rule);
    Broker broker({}, faults.words());
    const Mirror mirror("mirror");
    const auto client = OpenClient(true);
    faults.Begin();
    for (const size_t size : {10, 1000000, 20000, 20, 30, 40}) {
      const std::string text(size, 't');
      std::string answer;
      ASSERT_EQ(Call(client.get(), "mirror", text, &answer), 0);
      ASSERT_EQ(answer, text + '\0');
    }
    EXPECT_GE(faults.Failed(use.call), 1u);
  }
  const Faults faults("send:ENOBUFS:1-");
  Broker broker({}, faults.words());
  RpcPeer peer(kBusPort);
  ASSERT_TRUE(peer.IsServed());
  faults.Begin();
  ASSERT_TRUE(peer.Send(RpcCheck("none")));
  ASSERT_TRUE(Await([&] { return faults.Failed("send") > 0; }));
  std::this_thread::sleep_for(milliseconds(500));
  EXPECT_LT(faults.Seen("send"), 2000u);  // 196000 a second is what a spinning thread makes
}

enum class Exchange { kDone, kTold, kLeftWaiting };

// A listener and a caller that come, exchange a frame, and go. When that fails, one of them must
// have been told by an answer or a close.
Exchange ExchangeOnce(size_t size) {
  RpcPeer listener(kBusPort);
  RpcPeer caller(kBusPort);
  listener.SetPatience(1000);
  caller.SetPatience(1000);
  const std::string cmd = "job" + std::to_string(size);
  const std::string text(size, 'x');
  RpcFrame got;
  constexpr int kSilence = 9999;
  const int code = listener.Ask(RpcListen(cmd, RPC_TYPE_REQUEST, 0, kLive));
  const bool is_done = code == 0 && caller.Send(RpcBytes(RPC_TYPE_REQUEST, 1, cmd, text)) &&
                       listener.Read(&got) && listener.Send(test::RpcReply(got, 0, text)) &&
                       caller.Read(&got) && got.head.err_code == 0 && got.payload == text;
  if (is_done) return Exchange::kDone;
  const bool is_told =
      (code != 0 && code != kSilence) || listener.IsClosedByPeer(0) || caller.IsClosedByPeer(0);
  return is_told || got.head.err_code != 0 ? Exchange::kTold : Exchange::kLeftWaiting;
}

// One allocation that fails, wherever, costs one connection at most, told in a line, and never the
// broker; memory that does not come back ends it in order.
TEST(BrokerFaults, FailedAllocationsEndInOrder) {
  NEED_FAULTS();
  int happened = 0;
  for (int nth = 1; nth < 600; nth += 1 + nth / 3) {
    SCOPED_TRACE(nth);
    const Faults faults("malloc:ENOMEM:" + std::to_string(nth) + "-" + std::to_string(nth));
    Broker broker({}, faults.words());
    faults.Begin();
    int lost = 0;
    for (size_t round = 0; round < 100 && faults.Failed("malloc") == 0; ++round) {
      const Exchange end = ExchangeOnce(round % 3 == 2 ? 40000 + round : round);
      EXPECT_NE(end, Exchange::kLeftWaiting);
      lost += end == Exchange::kDone ? 0 : 1;
      if (broker.process.IsOver()) break;
    }
    happened += faults.Failed("malloc") > 0 ? 1 : 0;
    EXPECT_LE(lost, 1);
    ASSERT_TRUE(
        Await([&] { return broker.process.IsOver() || ExchangeOnce(10) == Exchange::kDone; }));
    broker.End();
    EXPECT_TRUE(lost == 0 || Has(broker.process.output(), "<error>")) << broker.process.output();
  }
  EXPECT_GE(happened, 8);

  const Faults faults("malloc:ENOMEM:1-");
  Child broker = test::StartBroker({}, faults.words());
  faults.Begin();
  EXPECT_TRUE(Await([&] { return broker.IsOver() || ExchangeOnce(10) == Exchange::kDone; }));
  EXPECT_EQ(broker.Wait(), 1) << broker.output();
  EXPECT_TRUE(Has(broker.output(), "bsp-broker: ")) << broker.output();
}

}  // namespace
