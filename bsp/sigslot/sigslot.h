// Typed callbacks between objects that need not know each other's class.
//
// A signal is a member of the object that emits; a slot is a member function of a receiver, a class
// that derives from has_slots. Emission is a plain call, one slot after the other in the order of
// connection, on the thread of the emitter.
//
//   class Meter { public: sigslot::signal2<int, std::string> SignalReading; };
//   class Panel : public sigslot::has_slots<> { public: void Show(int value, std::string unit); };
//   meter.SignalReading.connect(&panel, &Panel::Show);
//   meter.SignalReading(21, "C");
//
// Each side knows the other by plain pointer: the signal owns a list of connections, the receiver
// keeps the set of its signals. What keeps these pointers from dangling is that either side, when
// it dies or lets go, tells the other; so they may die in any order.
//
// A slot may do anything to the signal that is calling it: disconnect itself or others, connect new
// ones, emit again, destroy its receiver, and destroy the signal. To that end every emission stands
// as a record on the stack, with the position where its walk goes on, in a chain that hangs on the
// signal. Taking a connection out moves the records that were about to go on there to the place
// behind it; the death of the signal marks the records, and their walks then end without touching
// it. A connection that is freed during its own call is safe because nothing of it is read after
// the call.
//
// The walk takes the next position before each call. So a slot that is connected while the last one
// of the list runs waits for the next emission, one that is connected earlier still gets its turn.
//
// Threads: single_threaded, the one policy, locks nothing. The owner of a signal sees to it that
// connecting, emitting and destroying, on both sides, do not overlap.
#ifndef BSP_SIGSLOT_SIGSLOT_H_
#define BSP_SIGSLOT_SIGSLOT_H_

#include <cstddef>
#include <iterator>
#include <list>
#include <memory>
#include <set>
#include <type_traits>
#include <utility>

namespace sigslot {

// The threading policy of everything that stays on one thread.
class single_threaded {
 public:
  virtual ~single_threaded() = default;
  virtual void lock() {}
  virtual void unlock() {}
};

// Holds a policy locked for the length of a scope.
template <class mt_policy>
class lock_block {
 public:
  explicit lock_block(mt_policy* policy) : policy_(policy) { policy_->lock(); }
  lock_block(const lock_block&) = delete;
  lock_block& operator=(const lock_block&) = delete;
  ~lock_block() {
    if (policy_ != nullptr) policy_->unlock();
  }

  // The policy is gone, there is nothing left to unlock.
  void abandon() { policy_ = nullptr; }

 private:
  mt_policy* policy_;
};

class has_slots_interface;

// What receivers know of a signal.
class _signal_base_interface {
 public:
  // Takes out every connection to `slot`.
  virtual void slot_disconnect(has_slots_interface* slot) = 0;

  // Connects new_slot to each member function that old_slot is connected with. Receivers of a class
  // other than that of old_slot are left alone.
  virtual void slot_duplicate(const has_slots_interface* old_slot,
                              has_slots_interface* new_slot) = 0;

 protected:
  ~_signal_base_interface() = default;
};

// What signals know of a receiver.
class has_slots_interface {
 public:
  has_slots_interface() = default;
  has_slots_interface(const has_slots_interface&) = delete;
  has_slots_interface& operator=(const has_slots_interface&) = delete;

  // Called by signals: a first connection to this receiver was made, the last one is gone.
  virtual void signal_connect(_signal_base_interface* signal) = 0;
  virtual void signal_disconnect(_signal_base_interface* signal) = 0;

  virtual ~has_slots_interface() = default;

  // Ends every connection to this receiver.
  virtual void disconnect_all() = 0;
};

template <class mt_policy>
class _signal_base : public _signal_base_interface, public mt_policy {
 public:
  _signal_base() = default;
  _signal_base(const _signal_base&) = delete;
  _signal_base& operator=(const _signal_base&) = delete;
};

// Base of receivers. Its destructor ends all connections; a class whose slots must not run on a
// half-destroyed object calls disconnect_all first thing in its own destructor.
template <class mt_policy = single_threaded>
class has_slots : public has_slots_interface, public mt_policy {
 public:
  void signal_connect(_signal_base_interface* signal) override {
    lock_block<mt_policy> lock(this);
    signals_.insert(signal);
  }

  void signal_disconnect(_signal_base_interface* signal) override { forget(signal); }

  ~has_slots() override { leave_all(); }

  void disconnect_all() override { leave_all(); }

  // Drops the signal from the set and nothing more; for the signal itself.
  void forget(_signal_base_interface* signal) {
    lock_block<mt_policy> lock(this);
    signals_.erase(signal);
  }

 private:
  void leave_all() {
    lock_block<mt_policy> lock(this);
    // Taken out first: each signal that is left calls forget.
    std::set<_signal_base_interface*> signals;
    signals.swap(signals_);
    for (_signal_base_interface* signal : signals) signal->slot_disconnect(this);
  }

  std::set<_signal_base_interface*> signals_;  // connected to this receiver, each once
};

// What an argument is copied from; one that is a reference is handed on as it is.
template <class argument>
using copied = std::add_lvalue_reference_t<std::add_const_t<argument>>;

// One connection: a receiver and one of its member functions.
template <class a1, class a2, class mt_policy>
class _connection_base2 {
 public:
  virtual ~_connection_base2() = default;
  virtual has_slots_interface* getdest() const = 0;
  virtual void emit(a1 first, a2 second) = 0;

  // A new connection, owned by the caller, to the same receiver or to new_dest; the latter null
  // when new_dest is not of the receiver's class.
  virtual _connection_base2* clone() const = 0;
  virtual _connection_base2* duplicate(has_slots_interface* new_dest) const = 0;

  // As emit with copies of the arguments, made where the slot takes them: through emit each would
  // be moved once more on the way.
  virtual void emit_copies(copied<a1> first, copied<a2> second) = 0;
};

template <class dest, class a1, class a2, class mt_policy>
class _connection2 : public _connection_base2<a1, a2, mt_policy> {
 public:
  using member_function = void (dest::*)(a1, a2);

  _connection2(dest* object, member_function member) : object_(object), member_(member) {}

  has_slots_interface* getdest() const override { return object_; }

  // The slot may free this connection: nothing of it is read after the call.
  void emit(a1 first, a2 second) override {
    (object_->*member_)(std::forward<a1>(first), std::forward<a2>(second));
  }

  void emit_copies(copied<a1> first, copied<a2> second) override {
    (object_->*member_)(first, second);
  }

  _connection_base2<a1, a2, mt_policy>* clone() const override { return new _connection2(*this); }

  _connection_base2<a1, a2, mt_policy>* duplicate(has_slots_interface* new_dest) const override {
    dest* object = dynamic_cast<dest*>(new_dest);
    return object != nullptr ? new _connection2(object, member_) : nullptr;
  }

 private:
  dest* object_;
  member_function member_;
};

// The connections of a signal, and the emissions that are walking through them.
template <class a1, class a2, class mt_policy>
class _signal_base2 : public _signal_base<mt_policy> {
 public:
  using connection = _connection_base2<a1, a2, mt_policy>;

  // Leaves the receiver's virtual operations alone, since it may be in its destructor.
  void slot_disconnect(has_slots_interface* slot) override {
    lock_block<mt_policy> lock(this);
    for (auto it = connections_.begin(); it != connections_.end();) {
      const auto next = std::next(it);
      if ((*it)->getdest() == slot) erase(it);
      it = next;
    }
    auto* receiver = dynamic_cast<has_slots<mt_policy>*>(slot);
    if (receiver != nullptr) receiver->forget(this);
  }

  void slot_duplicate(const has_slots_interface* old_slot, has_slots_interface* new_slot) override {
    lock_block<mt_policy> lock(this);
    // By count: what is appended here must not be duplicated in turn.
    auto it = connections_.begin();
    for (size_t left = connections_.size(); left > 0; --left, ++it) {
      if ((*it)->getdest() != old_slot) continue;
      std::unique_ptr<connection> copy((*it)->duplicate(new_slot));
      if (copy) append(std::move(copy));
    }
  }

  ~_signal_base2() override {
    leave_all();
    for (emission* walk = emissions_; walk != nullptr; walk = walk->outer_) walk->signal_ = nullptr;
  }

  void disconnect_all() { leave_all(); }

 protected:
  using connection_list = std::list<connection*>;

  // One walk over the connections. Lives on the stack, so that the last begun ends first.
  class emission {
   public:
    explicit emission(_signal_base2* signal)
        : lock_(signal),
          signal_(signal),
          next_(signal->connections_.begin()),
          end_(signal->connections_.end()),
          outer_(signal->emissions_) {
      link();
    }
    emission(const emission&) = delete;
    emission& operator=(const emission&) = delete;
    ~emission() {
      if (signal_ != nullptr) {
        signal_->emissions_ = outer_;
      } else {
        lock_.abandon();
      }
    }

    bool is_done() const { return signal_ == nullptr || next_ == end_; }
    connection* take_next() { return *next_++; }

   private:
    friend class _signal_base2;
    using position = typename connection_list::iterator;

#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic push
// The destructor takes the address out again, which the compiler does not follow through inlining.
#pragma GCC diagnostic ignored "-Wdangling-pointer"
#endif
    void link() { signal_->emissions_ = this; }
#if defined(__GNUC__) && !defined(__clang__) && __GNUC__ >= 12
#pragma GCC diagnostic pop
#endif

    lock_block<mt_policy> lock_;
    _signal_base2* signal_;  // null when it died under the walk
    position next_;
    const position end_;
    emission* const outer_;  // the emission in one of whose slots this one began
  };

  // What can run out of memory comes first: neither side may know of the other alone.
  void append(std::unique_ptr<connection> added) {
    connection_list node(1, added.get());
    added->getdest()->signal_connect(this);
    connections_.splice(connections_.end(), node);
    added.release();
  }

 private:
  void erase(typename connection_list::iterator position) {
    for (emission* walk = emissions_; walk != nullptr; walk = walk->outer_) {
      if (walk->next_ == position) ++walk->next_;
    }
    delete *position;
    connections_.erase(position);
  }

  void leave_all() {
    lock_block<mt_policy> lock(this);
    while (!connections_.empty()) {
      has_slots_interface* receiver = connections_.front()->getdest();
      erase(connections_.begin());
      receiver->signal_disconnect(this);
    }
  }

  connection_list connections_;    // in order of connection, owned
  emission* emissions_ = nullptr;  // innermost of those under way
};

// A signal with two arguments. Slots are void member functions that take the same two.
template <class a1, class a2, class mt_policy = single_threaded>
class signal2 : public _signal_base2<a1, a2, mt_policy> {
 public:
  signal2() = default;
  ~signal2() override = default;

  // Calls `member` of `object` at each emission from now on. Neither is owned. A slot that is
  // connected twice is called twice. A null object or member is ignored.
  template <class dest>
  void connect(dest* object, void (dest::*member)(a1, a2)) {
    if (object == nullptr || member == nullptr) return;
    lock_block<mt_policy> lock(this);
    this->append(std::make_unique<_connection2<dest, a1, a2, mt_policy>>(object, member));
  }

  // Calls every slot with copies of its own of the arguments as they are now, whatever the slots do
  // to the originals. An exception of a slot ends the walk and passes through.
  void operator()(copied<a1> first, copied<a2> second) {
    typename _signal_base2<a1, a2, mt_policy>::emission walk(this);
    if (walk.is_done()) return;
    auto* slot = walk.take_next();
    // The only one, or the last below: nothing that it connects is called in this walk.
    if (walk.is_done()) {
      slot->emit_copies(first, second);
      return;
    }
    a1 own_first = first;
    a2 own_second = second;
    do {
      slot->emit_copies(own_first, own_second);
      if (walk.is_done()) return;
      slot = walk.take_next();
    } while (!walk.is_done());
    slot->emit(std::forward<a1>(own_first), std::forward<a2>(own_second));
  }
};

}  // namespace sigslot

#endif  // BSP_SIGSLOT_SIGSLOT_H_
