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
using test::kPatienceMs;
using test::Mirror;
using test::OpenClient;
using test::RpcCheck;
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

}  // namespace
