// The broker's objects without a socket: budget, backlog, calls, commands, times, and the queue of
// a connection against a plain string.
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <algorithm>
#include <deque>
#include <map>
#include <random>
#include <string>

#include "bsp/base/socket.h"
#include "bsp/net/rpc/backlog.h"
#include "bsp/net/rpc/budget.h"
#include "bsp/net/rpc/call_table.h"
#include "bsp/net/rpc/command_table.h"
#include "bsp/net/rpc/frame_input.h"
#include "bsp/net/rpc/latency_histogram.h"
#include "bsp/net/rpc/rpc_agent.h"
#include "bsp/net/rpc/rpc_header.h"
#include "bsp/net/send_queue.h"

namespace {

using bsp::Backlog;
using bsp::Budget;
using bsp::CallTable;
using bsp::PeerAccount;
using bsp::SendQueue;
using Verdict = Backlog::Verdict;

// One peer that takes all it can leaves nothing for others, or takes their allowance; a sum that is
// not given back shrinks the budget for ever.
TEST(Budget, ManyHogsLeaveAShare) {
  constexpr size_t kAllowance = Budget::kAllowanceBytes;
  Budget budget(200 * kAllowance, 100);
  std::deque<PeerAccount> hogs;
  for (size_t count = 1; count <= 20; ++count) {
    hogs.emplace_back(&budget);
    while (hogs.back().Grow(PeerAccount::kInput, 64)) {
    }
  }
  const double half = 51.0 * kAllowance;  // of the 100 that are shared, and its own
  EXPECT_NEAR(static_cast<double>(hogs.front().held_bytes()), half, 128);
  EXPECT_TRUE(hogs.front().IsOver());
  std::deque<PeerAccount> small;
  while (small.size() < 80) {
    ASSERT_TRUE(budget.HasPlace());
    small.emplace_back(&budget);
    EXPECT_TRUE(small.back().Grow(PeerAccount::kCalls, kAllowance));
  }
  EXPECT_FALSE(small.back().Grow(PeerAccount::kInput, kAllowance));
  EXPECT_LE(budget.used_bytes(), budget.limit_bytes());
  for (PeerAccount& account : small) account.Shrink(PeerAccount::kCalls, kAllowance);
  for (PeerAccount& hog : hogs) hog.Close();
  EXPECT_EQ(budget.used_bytes(), 0u);

  Budget none(0, 0);
  PeerAccount free(&none);
  EXPECT_TRUE(none.HasPlace());
  EXPECT_TRUE(free.Grow(PeerAccount::kLarge, size_t{1} << 40));
  free.Close();
}

// A flooder refused behind the small sender it should precede, a mute destination that is waited
// for, a trickling one for which everybody waits again and again, and sums that drift from the
// queue.
TEST(Backlog, FloodersPayFirst) {
  Backlog backlog;
  const auto judge = [&](uint64_t sender, size_t bytes, int64_t now_ms) {
    return backlog.Judge(sender, bytes, 1000, now_ms);
  };
  EXPECT_EQ(judge(1, 5000, 0), Verdict::kPass);  // nothing waits: its socket is asked
  backlog.Update(100, 0, 0);                     // of nobody
  backlog.Add(1, 400);
  backlog.Update(500, 0, 10);
  EXPECT_EQ(judge(1, 101, 10), Verdict::kWait);  // has 400 of the 500 that are left
  EXPECT_EQ(judge(1, 100, 10), Verdict::kPass);
  EXPECT_EQ(judge(2, 500, 10), Verdict::kPass);
  EXPECT_EQ(judge(2, 501, 10), Verdict::kWait);
  EXPECT_EQ(judge(1, 101, Backlog::kMuteMs), Verdict::kRefuse);
  EXPECT_EQ(judge(2, 500, Backlog::kMuteMs), Verdict::kPass);
  EXPECT_EQ(backlog.StalledMs(1500), 1500);
  backlog.Update(350, 150, 1500);  // it reads: 100 of nobody, 50 of the first
  EXPECT_EQ(backlog.BytesOf(1), 350u);
  EXPECT_EQ(judge(1, 400, 1600), Verdict::kWait);
  backlog.GiveUpWaiting();
  EXPECT_EQ(judge(1, 400, 1600), Verdict::kRefuse);
  backlog.Update(100, 400, 1700);
  EXPECT_EQ(judge(1, 900, 1700), Verdict::kRefuse);
  backlog.Update(80, 420, 1700);  // most of it is gone
  EXPECT_EQ(judge(1, 900, 1700), Verdict::kWait);
  backlog.Update(0, 500, 1700);
  EXPECT_FALSE(backlog.IsStuck());

  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::deque<uint64_t> queue;  // the sender of each byte
  uint64_t taken = 0;
  backlog.Update(1, taken, 0);
  queue.push_back(0);
  for (int step = 0; step < 20000; ++step) {
    if (random() % 3 != 0) {
      const uint64_t sender = 1 + random() % 5;
      const size_t bytes = random() % 20;
      if (bytes > 0) backlog.Add(sender, bytes, sender == 5);
      queue.insert(queue.end(), bytes, sender);
    }
    const size_t count = queue.empty() ? 0 : random() % queue.size() / 2;
    queue.erase(queue.begin(), queue.begin() + static_cast<long>(count));
    taken += count;
    backlog.Update(queue.size(), taken, step);
    for (uint64_t sender = 1; sender <= 5; ++sender) {
      ASSERT_EQ(backlog.BytesOf(sender),
                static_cast<size_t>(std::count(queue.begin(), queue.end(), sender)));
    }
    ASSERT_EQ(backlog.reply_bytes(), backlog.BytesOf(5));
  }
}

// An answer that counts twice, for another's call or from another listener; a call that outlives
// its peer or dies with the wrong one; an order of age that is not the order of the calls.
TEST(CallTable, AgainstAModel) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  CallTable table;
  struct Known {
    size_t requester, listener;
    uint32_t seq;
    int64_t begin_us;
  };
  std::vector<Known> model;  // in order of age
  std::vector<CallTable::Peer> peers(6, CallTable::Peer(nullptr));
  const auto owner = [&](const CallTable::Peer* peer) {
    return static_cast<size_t>(peer - peers.data());
  };
  size_t ended = 0;
  size_t forged = 0;
  size_t gone = 0;
  for (int64_t step = 1; step < 60000; ++step) {
    const size_t one = random() % 3;
    const size_t other = 3 + random() % 3;
    const auto seq = static_cast<uint32_t>(random() % 40);
    if (random() % 2 == 0) {
      CallTable::Call call;
      call.requester = &peers[one];
      call.listener = &peers[other];
      call.seq = seq;
      call.begin_us = step;
      table.Begin(call);
      model.push_back({one, other, seq, step});
    } else if (random() % 400 != 0) {
      CallTable::Call call;
      const bool is_ended = table.End(&peers[one], seq, &peers[other], &call);
      const auto known = std::find_if(model.begin(), model.end(), [&](const Known& candidate) {
        return candidate.requester == one && candidate.listener == other && candidate.seq == seq &&
               (!is_ended || candidate.begin_us == call.begin_us);
      });
      ASSERT_EQ(is_ended, known != model.end());
      ++(is_ended ? ended : forged);
      if (is_ended) model.erase(known);
    } else {
      const size_t leaver = random() % 6;
      table.Remove(&peers[leaver], [&](const CallTable::Call& call) {
        const auto known = std::find_if(model.begin(), model.end(), [&](const Known& candidate) {
          return candidate.begin_us == call.begin_us;
        });
        ASSERT_NE(known, model.end());
        ASSERT_TRUE(owner(call.requester) == leaver || owner(call.listener) == leaver);
        model.erase(known);
        ++gone;
      });
      if (random() % 4 == 0) table.Shrink();
    }
    ASSERT_EQ(table.size(), model.size());
    for (size_t i = 0; i < 3; ++i) {
      const auto oldest = std::find_if(model.begin(), model.end(),
                                       [&](const Known& known) { return known.requester == i; });
      const CallTable::Call* const told = table.Oldest(&peers[i]);
      ASSERT_EQ(told != nullptr, oldest != model.end());
      ASSERT_TRUE(told == nullptr || told->begin_us == oldest->begin_us);
    }
  }
  EXPECT_GT(ended, 1000u);
  EXPECT_GT(forged, 1000u);
  EXPECT_GT(gone, 1000u);
}

// A command without a listener that stays, one that goes with a listener left, and an agent that is
// still listed where it no longer listens.
TEST(CommandTable, LivesByItsListeners) {
  Budget budget(0, 0);
  const auto agent = [&] { return std::make_shared<bsp::RpcAgent>(1, &budget); };
  const auto first = agent();
  const auto second = agent();
  bsp::CommandTable table;
  table.Add("msg", RPC_TYPE_MESSAGE, 2, first);
  table.Add("msg", RPC_TYPE_MESSAGE, 5, second);
  table.Add("msg", RPC_TYPE_MESSAGE, 9, second);  // once is enough
  table.Add("req", RPC_TYPE_REQUEST, 3, first);
  ASSERT_NE(table.Find("msg"), nullptr);
  EXPECT_EQ(table.Find("msg")->power, 2);
  EXPECT_EQ(table.Find("msg")->clients.size(), 2u);
  EXPECT_TRUE(table.IsTaken("req", RPC_TYPE_MESSAGE));
  EXPECT_TRUE(table.IsTaken("msg", RPC_TYPE_REQUEST));
  EXPECT_FALSE(table.IsTaken("msg", RPC_TYPE_MESSAGE));
  EXPECT_FALSE(table.IsTaken("none", RPC_TYPE_REQUEST));
  table.Remove(first);
  EXPECT_EQ(table.Find("req"), nullptr);
  ASSERT_NE(table.Find("msg"), nullptr);
  EXPECT_EQ(table.Find("msg")->clients.front(), second);
  table.Remove(second);
  EXPECT_EQ(table.size(), 0u);
  EXPECT_EQ(first->cmds.size() + second->cmds.size(), 0u);
}

// Memory for frames that is given away when two large ones are under way at the same time.
TEST(FrameStore, KeepsTheLargerOfTwo) {
  const auto shared = std::make_shared<bsp::FrameMemory>();
  ASSERT_TRUE(shared->Reserve(500000));
  {
    bsp::FrameStore first(shared);
    bsp::FrameStore second(shared);
    RpcHeader head = {};
    size_t from = 0;
    size_t room = 0;
    head.size = 400000;
    ASSERT_NE(first.Begin(head, &from, &room), nullptr);
    head.size = 300000;
    ASSERT_NE(second.Begin(head, &from, &room), nullptr);
    EXPECT_EQ(room, 300000u);
    first.Recycle();
    EXPECT_GE(shared->capacity(), 500000u);
    second.Recycle();
    EXPECT_GE(shared->capacity(), 500000u);
    ASSERT_NE(first.Begin(head, &from, &room), nullptr);
  }
  EXPECT_GE(shared->capacity(), 500000u);  // also when its borrower goes
}

// A percentile below the true time, or more than a quarter above it.
TEST(LatencyHistogram, StaysWithinAQuarter) {
  bsp::LatencyHistogram histogram;
  EXPECT_EQ(histogram.Percentile(0.5), 0);
  std::vector<int64_t> times;
  std::mt19937 random(7);
  for (int i = 0; i < 5000; ++i) {
    times.push_back(static_cast<int64_t>(random() % (1u << (1 + i % 25))));
    histogram.Add(times.back());
  }
  std::sort(times.begin(), times.end());
  for (const double part : {0.0, 0.1, 0.5, 0.9, 0.99, 1.0}) {
    const int64_t real = times[static_cast<size_t>(part * 4999)];
    EXPECT_GE(histogram.Percentile(part), real);
    EXPECT_LE(histogram.Percentile(part), real + real / 4 + 1);
  }
  histogram.Add(-5);
  histogram.Add(INT64_MAX);
}

// Bytes lost, doubled or out of order on any road through the queue; bytes counted as refused that
// no socket was asked about.
TEST(SendQueue, KeepsTheStreamAndCountsWhatWasRefused) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  for (const bool whole : {false, true}) {
    int fds[2] = {-1, -1};
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0, fds), 0);
    bsp::Socket near(fds[0]);
    const bsp::Socket far(fds[1]);
    SendQueue queue(whole);
    std::string sent;
    std::string got;
    size_t refusals = 0;
    for (int step = 0; step < 3000; ++step) {
      std::string text(random() % (step % 50 == 0 ? 400000 : 3000), '\0');
      for (char& c : text) c = static_cast<char>(random());
      const size_t cut = text.empty() ? 0 : random() % text.size();
      const iovec head = {&text[0], cut};
      const iovec body = {&text[0] + cut, text.size() - cut};
      const size_t refused = queue.RefusedBytes();
      switch (random() % 3) {
        case 0:
          queue.Append(head, body);
          EXPECT_TRUE(refused > 0 || queue.RefusedBytes() == 0);  // not offered yet
          break;
        case 1:
          queue.Write(&near);
          text.clear();
          break;
        default:
          queue.Send(&near, head, body);
      }
      sent += text;
      refusals += queue.RefusedBytes() > 0 ? 1 : 0;
      EXPECT_EQ(queue.Mask() != (bsp::EVENT_READ | bsp::EVENT_ERROR), queue.RefusedBytes() > 0);
      char area[200000];
      const ssize_t count = recv(far.GetNativeSocket(), area, random() % 1500, 0);
      if (count > 0) got.append(area, static_cast<size_t>(count));
    }
    while (got.size() < sent.size()) {
      char area[200000];
      const ssize_t count = recv(far.GetNativeSocket(), area, sizeof area, 0);
      if (count > 0) got.append(area, static_cast<size_t>(count));
      queue.Write(&near);
      ASSERT_TRUE(count > 0 || queue.size() > 0);
    }
    EXPECT_TRUE(got == sent);
    EXPECT_EQ(queue.size() + queue.RefusedBytes(), 0u);
    EXPECT_EQ(queue.taken_bytes(), sent.size());
    EXPECT_GT(refusals, 10u);
  }
}

}  // namespace
