// Signals and slots: order, life times, and what a slot may do to the signal that calls it.
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>

#include "bsp/sigslot/sigslot.h"
#include "tests/support/virtual_slot.h"

namespace {

using Signal = sigslot::signal2<std::shared_ptr<int>, std::string>;

// Notes each call under its name, with a "?" when the arguments are not those of the emission; then
// does what the test wants done inside the slot.
class Receiver : public sigslot::has_slots<> {
 public:
  Receiver(char name, std::string* calls) : name_(name), calls_(calls) {}

  void OnSignal(std::shared_ptr<int> value, std::string text) {
    *calls_ += name_;
    if (!value || *value != 7 || text != "seven") *calls_ += '?';
    const auto action = action_;  // the action may destroy this object
    if (action) action();
  }

  std::function<void()> action_;

 private:
  const char name_;
  std::string* const calls_;
};

// Receivers "a" to "d", connected in this order.
class SigslotTest : public ::testing::Test {
 protected:
  SigslotTest() { Connect(); }

  void Connect() {
    signal_ = std::make_unique<Signal>();
    for (char name = 'a'; name <= 'd'; ++name) {
      At(name) = std::make_unique<Receiver>(name, &calls_);
      signal_->connect(At(name).get(), &Receiver::OnSignal);
    }
  }

  std::unique_ptr<Receiver>& At(char name) { return receivers_[name - 'a']; }

  void Raise() { (*signal_)(std::make_shared<int>(7), "seven"); }
  // The names of the receivers that one emission calls, and "!" for an exception that came through.
  std::string Emit() {
    calls_.clear();
    try {
      if (signal_) Raise();
    } catch (const std::runtime_error&) {
      calls_ += '!';
    }
    return calls_;
  }

  std::string calls_;
  std::unique_ptr<Signal> signal_;
  std::unique_ptr<Receiver> receivers_[4];
};

// A slot called out of turn or with another slot's left-overs for arguments; a side that dies
// first, or is let go, and leaves a pointer to itself behind on the other side.
TEST_F(SigslotTest, EitherSideMayDieFirst) {
  signal_->connect(At('b').get(), &Receiver::OnSignal);
  EXPECT_EQ(Emit(), "abcdb");
  Signal second;
  second.connect(At('a').get(), &Receiver::OnSignal);
  signal_->slot_disconnect(At('b').get());
  signal_.reset();
  At('b').reset();
  calls_.clear();
  second(nullptr, "");
  At('a')->disconnect_all();
  second.connect(At('c').get(), &Receiver::OnSignal);
  At('c').reset();
  second(nullptr, "");
  EXPECT_EQ(calls_, "a?");
}

// Whatever a slot does to the signal that is calling it, the walk goes on with the right ones,
// frees nothing twice and touches nothing freed; the next emission calls exactly those that are
// left, and no record of the walk stays behind for a connection that goes later.
TEST_F(SigslotTest, SlotMayDoAnything) {
  Receiver late('l', &calls_);
  const auto connect_late = [&] { signal_->connect(&late, &Receiver::OnSignal); };
  const auto drop = [this](const std::string& names) {
    return [this, names] {
      for (const char name : names) At(name).reset();
    };
  };
  // Emits twice more from inside, and does `last` in the innermost walk.
  int depth = 0;
  const auto nest = [&](const std::function<void()>& last) {
    return [this, &depth, last] { ++depth <= 2 ? Raise() : last(); };
  };
  const struct {
    const char* what;
    char actor;
    std::function<void()> action;
    const char* during;
    const char* behind;
  } courses[] = {
      {"destroys its receiver, the last", 'd', drop("d"), "abcd", "abc"},
      {"takes out one before", 'b', drop("a"), "abcd", "bcd"},
      {"takes out itself and the next", 'b', drop("bc"), "abd", "ad"},
      {"takes out everyone", 'b', drop("abcd"), "ab", ""},
      {"ends all", 'b', [&] { signal_->disconnect_all(); }, "ab", ""},
      {"throws", 'b', [] { throw std::runtime_error("slot"); }, "ab!", "abcd"},
      {"connects while others are to come", 'a', connect_late, "abcdl", "abcdl"},
      {"connects while the last one runs", 'd', connect_late, "abcd", "abcdl"},
      {"emits again, then takes out what is next", 'a', nest(drop("b")), "aaacdcdcd", "acd"},
      {"destroys it under three walks", 'b', nest([&] { signal_.reset(); }), "ababab", ""},
  };
  for (const auto& course : courses) {
    SCOPED_TRACE(course.what);
    Connect();
    depth = 0;
    At(course.actor)->action_ = course.action;
    EXPECT_EQ(Emit(), course.during);
    if (At(course.actor)) At(course.actor)->action_ = nullptr;
    EXPECT_EQ(Emit(), course.behind);
    for (auto& receiver : receivers_) receiver.reset();
    late.disconnect_all();
    EXPECT_EQ(Emit(), "");
  }
}

// A duplicate goes to the new receiver, is not duplicated in turn, and is torn down with it; a
// receiver of another class is left alone.
TEST_F(SigslotTest, DuplicatesConnections) {
  auto added = std::make_unique<Receiver>('x', &calls_);
  sigslot::has_slots<> other;
  sigslot::has_slots_interface* const receivers[] = {At('a').get(), added.get(), &other, nullptr};
  for (auto* receiver : receivers) signal_->slot_duplicate(At('a').get(), receiver);
  EXPECT_EQ(Emit(), "abcdaxx");
  added.reset();
  EXPECT_EQ(Emit(), "abcda");
}

// Modules that were built against another release find the operations where they were.
TEST(Sigslot, ConnectionKeepsItsTable) {
  using Connection = sigslot::_connection_base2<int, int, sigslot::single_threaded>;
  EXPECT_EQ(test::VirtualSlot(&Connection::getdest), 2u);
  EXPECT_EQ(test::VirtualSlot(&Connection::emit), 3u);
  EXPECT_EQ(test::VirtualSlot(&Connection::clone), 4u);
  EXPECT_EQ(test::VirtualSlot(&Connection::duplicate), 5u);
}

}  // namespace
