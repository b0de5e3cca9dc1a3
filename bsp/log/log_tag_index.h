// From a log tag to its threshold, without a lock.
//
// The look-up is on the road of every _log_debug of a process, filtered ones included. Tags are
// few and live as long as their client, so nodes are constant but for one pointer and are never
// taken out: a reader follows acquire loads and needs no lock. Two tables lead to a node:
//
//   literals  by the address of the tag's text. Nearly all tags are literals, the same at every
//             call, and literals of the program and of this library lie in read-only bytes that
//             stay until the process ends: there the address alone tells the text. Any other
//             address is entered as one that tells nothing: a buffer may hold another tag by now,
//             and a library that can be unloaded leaves its addresses to the next. An entry is
//             never replaced, so that what an address is worth is looked up 256 times at most,
//             and two addresses that fall together cannot make threads write by turns.
//   chains    by the text, for all else.
//
// Rejected: a map behind a mutex, ten times the cost and worse with every thread; the chains alone,
// which need the length, a hash and a comparison of the text and take three times as long.
#ifndef BSP_LOG_LOG_TAG_INDEX_H_
#define BSP_LOG_LOG_TAG_INDEX_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace bsp {

// Threads: the Find operations on any; Set on one at a time; Clear while nobody else is here.
class LogTagIndex {
 public:
  // Where the tag's threshold stands, an aligned word that others may write. Null when this literal
  // has not been met by Find; then Find knows.
  const int32_t* FindLiteral(const char* tag) const {
    const Literal& literal = literals_[EntryOf(tag)];
    // pairs with the release in Remember
    if (literal.address.load(std::memory_order_acquire) != tag) return nullptr;
    return literal.tag != nullptr ? literal.tag->level.load(std::memory_order_acquire) : nullptr;
  }

  // The same for any tag; null when Set has not named it.
  const int32_t* Find(const char* tag) {
    const int32_t* level = FindLiteral(tag);
    return level != nullptr ? level : FindByText(tag);
  }

  // Makes `level`, which must live until Clear, the threshold of the tag.
  void Set(const std::string& tag, const int32_t* level);

  void Clear();

 private:
  struct Tag {
    Tag* next;
    std::string text;
    std::atomic<const int32_t*> level;
  };
  struct Literal {
    std::atomic<const char*> address{nullptr};
    const Tag* tag = nullptr;  // written before the address; null: the address tells nothing
  };

  // 64: twice the tags that can have a slot. 256: a program uses a tag from several addresses.
  static constexpr size_t kChains = 64;
  static constexpr int kLiteralBits = 8;
  static constexpr size_t kLiterals = size_t{1} << kLiteralBits;

  // The top bits of a multiplicative hash; the constant is 2^64 divided by the golden ratio.
  static size_t EntryOf(const char* tag) {
    return (reinterpret_cast<uintptr_t>(tag) * uint64_t{0x9e3779b97f4a7c15}) >> (64 - kLiteralBits);
  }
  static size_t ChainOf(const char* tag, size_t length);

  const int32_t* FindByText(const char* tag);
  Tag* FindInChain(const char* tag, size_t length) const;
  void Remember(const char* tag, const Tag* known);

  Literal literals_[kLiterals];
  std::atomic_flag is_remembering_ = ATOMIC_FLAG_INIT;  // held by who writes literals_
  std::atomic<Tag*> chains_[kChains] = {};
  std::deque<Tag> tags_;  // owns the nodes
};

}  // namespace bsp

#endif  // BSP_LOG_LOG_TAG_INDEX_H_
