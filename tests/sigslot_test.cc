// Signals and slots: order, life times, and what a slot may do to the signal that calls it.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bsp/sigslot/sigslot.h"

namespace {

using Signal = sigslot::signal2<std::shared_ptr<int>, std::string>;

// Notes each call under its name, then runs what the test wants to happen inside the slot.
class Receiver : public sigslot::has_slots<> {
 public:
  Receiver(std::string name, std::string* calls) : name_(std::move(name)), calls_(calls) {}

  virtual void OnSignal(std::shared_ptr<int>, std::string) {
    *calls_ += name_;
    const auto action = action_;  // the action may destroy this object
    if (action) action();
  }

  std::function<void()> action_;

 protected:
  const std::string name_;
  std::string* const calls_;
};

class Derived : public Receiver {
 public:
  using Receiver::Receiver;
  void OnSignal(std::shared_ptr<int>, std::string text) override { *calls_ += name_ + text; }
};

class SigslotTest : public ::testing::Test {
 protected:
  std::unique_ptr<Receiver> Connect(const std::string& name) {
    auto receiver = std::make_unique<Receiver>(name, &calls_);
    signal_->connect(receiver.get(), &Receiver::OnSignal);
    return receiver;
  }

  // The names of the receivers that one emission calls.
  std::string Emit() {
    calls_.clear();
    (*signal_)(std::make_shared<int>(1), "!");
    return calls_;
  }

  std::string calls_;
  std::unique_ptr<Signal> signal_ = std::make_unique<Signal>();
};

// A slot called out of turn, twice too rarely, or as the base's where the class overrides it.
TEST_F(SigslotTest, CallsInOrderOfConnection) {
  EXPECT_EQ(Emit(), "");
  const auto a = Connect("a");
  auto b = Connect("b");
  Derived d("d", &calls_);
  signal_->connect(static_cast<Receiver*>(&d), &Receiver::OnSignal);
  signal_->connect(b.get(), &Receiver::OnSignal);
  EXPECT_EQ(Emit(), "abd!b");
  b.reset();
  EXPECT_EQ(Emit(), "ad!");
  signal_->disconnect_all();
  EXPECT_EQ(Emit(), "");
}

// A signal or receiver that dies first leaves a pointer to itself behind on the other side.
TEST_F(SigslotTest, EitherSideMayDieFirst) {
  auto a = Connect("a");
  Signal second;
  second.connect(a.get(), &Receiver::OnSignal);
  signal_.reset();
  second(nullptr, "");
  EXPECT_EQ(calls_, "a");
  a->disconnect_all();
  second(nullptr, "");
  a.reset();
  second(nullptr, "");
  EXPECT_EQ(calls_, "a");

  // Taken out from the signal's side alone, the receiver must not go on knowing the signal.
  signal_ = std::make_unique<Signal>();
  auto b = Connect("b");
  signal_->slot_disconnect(b.get());
  signal_.reset();
  b.reset();
}

// Each slot has copies of its own: what one does with its arguments, the next does not see.
TEST_F(SigslotTest, EachSlotHasItsOwnCopies) {
  class Eater : public sigslot::has_slots<> {
   public:
    void Eat(std::shared_ptr<int> value, std::string text) {
      seen_.emplace_back(value ? *value : 0, std::move(text));
      value.reset();
    }
    std::vector<std::pair<int, std::string>> seen_;
  };
  Eater eater;
  for (int i = 0; i < 3; ++i) signal_->connect(&eater, &Eater::Eat);
  (*signal_)(std::make_shared<int>(7), "seven");
  EXPECT_EQ(eater.seen_, (std::vector<std::pair<int, std::string>>(3, {7, "seven"})));
}

// The connection that is called, the one that is next, and those before may go under the walk.
TEST_F(SigslotTest, SlotMayTakeOutAnyConnection) {
  for (const std::string gone : {"a", "b", "c", "d", "bc", "cd", "bcd", "abcd"}) {
    SCOPED_TRACE(gone);
    signal_ = std::make_unique<Signal>();
    std::vector<std::unique_ptr<Receiver>> all;
    for (const char* name : {"a", "b", "c", "d"}) all.push_back(Connect(name));
    all[1]->action_ = [&] {
      for (const char name : gone) all[static_cast<size_t>(name - 'a')].reset();
    };
    std::string expected = "ab";
    for (const char name : {'c', 'd'}) {
      if (gone.find(name) == std::string::npos) expected += name;
    }
    EXPECT_EQ(Emit(), expected);
    std::string left = "abcd";
    for (const char name : gone) left.erase(left.find(name), 1);
    for (const auto& receiver : all) {
      if (receiver) receiver->action_ = nullptr;
    }
    EXPECT_EQ(Emit(), left);
  }
}

// A slot that is connected while the last one runs waits for the next emission; one that is
// connected earlier gets its turn in this one.
TEST_F(SigslotTest, SlotMayConnect) {
  const auto a = Connect("a");
  const auto b = Connect("b");
  Receiver late("l", &calls_);
  const auto connect_late = [&] { signal_->connect(&late, &Receiver::OnSignal); };
  b->action_ = connect_late;
  EXPECT_EQ(Emit(), "ab");
  b->action_ = nullptr;
  EXPECT_EQ(Emit(), "abl");
  late.disconnect_all();
  a->action_ = connect_late;
  EXPECT_EQ(Emit(), "abl");
}

// An inner emission whose slots take connections out moves the outer walk as well.
TEST_F(SigslotTest, SlotMayEmitAgain) {
  const auto a = Connect("a");
  auto b = Connect("b");
  auto c = Connect("c");
  int depth = 0;
  a->action_ = [&] {
    if (++depth <= 2) {
      (*signal_)(nullptr, "");
    } else {
      b.reset();
    }
  };
  EXPECT_EQ(Emit(), "aaaccc");
}

// The signal itself may go under two walks at once; neither touches it again.
TEST_F(SigslotTest, SlotMayDestroyTheSignal) {
  const auto a = Connect("a");
  const auto b = Connect("b");
  bool is_inner = false;
  a->action_ = [&] {
    if (is_inner) {
      signal_.reset();
    } else {
      is_inner = true;
      (*signal_)(nullptr, "");
    }
  };
  EXPECT_EQ(Emit(), "aa");
}

// An exception passes through and leaves no record of its walk behind.
TEST_F(SigslotTest, ExceptionPassesThrough) {
  auto a = Connect("a");
  auto b = Connect("b");
  a->action_ = [] { throw std::runtime_error("slot"); };
  EXPECT_THROW(Emit(), std::runtime_error);
  EXPECT_EQ(calls_, "a");
  a.reset();  // would move the walk, if one were still on record
  EXPECT_EQ(Emit(), "b");
}

// A duplicate goes to the new receiver, is not duplicated in turn, and is torn down with it; a
// receiver of another class is left alone.
TEST_F(SigslotTest, DuplicatesConnections) {
  class Other : public sigslot::has_slots<> {};
  const auto a = Connect("a");
  auto b = std::make_unique<Receiver>("b", &calls_);
  Other other;
  signal_->slot_duplicate(a.get(), a.get());
  signal_->slot_duplicate(a.get(), b.get());
  signal_->slot_duplicate(a.get(), &other);
  signal_->slot_duplicate(a.get(), nullptr);
  EXPECT_EQ(Emit(), "aabb");
  b.reset();
  EXPECT_EQ(Emit(), "aa");
}

// Receivers come, go, connect and let go at random, also from inside slots: emissions call exactly
// those that a plain list of connections has. The sanitizers watch the pointers.
TEST_F(SigslotTest, AnyCourseAgreesWithAPlainList) {
  const unsigned seed = std::random_device()();
  SCOPED_TRACE(seed);
  std::mt19937 random(seed);
  std::unique_ptr<Receiver> receivers[8];
  std::string model;
  const auto change = [&] {
    const size_t at = random() % 8;
    const char name = static_cast<char>('a' + at);
    if (!receivers[at]) receivers[at] = std::make_unique<Receiver>(std::string(1, name), &calls_);
    if (random() % 3 != 0) {
      signal_->connect(receivers[at].get(), &Receiver::OnSignal);
      model += name;
      return;
    }
    if (random() % 2 == 0) {
      receivers[at].reset();
    } else {
      receivers[at]->disconnect_all();
    }
    model.erase(std::remove(model.begin(), model.end(), name), model.end());
  };
  size_t called = 0;
  for (int round = 0; round < 2000; ++round) {
    change();
    for (const auto& receiver : receivers) {
      if (receiver) receiver->action_ = random() % 8 == 0 ? std::function<void()>(change) : nullptr;
    }
    if (model.size() < 40) Emit();
    for (const auto& receiver : receivers) {
      if (receiver) receiver->action_ = nullptr;
    }
    ASSERT_EQ(Emit(), model);
    called += model.size();
    if (model.size() >= 40) {
      signal_->disconnect_all();
      model.clear();
    }
  }
  EXPECT_GT(called, 2000u);
}

}  // namespace
