// How frames come in: small ones through the receive buffer, large ones straight to their place.
#ifndef BSP_NET_RPC_FRAME_INPUT_H_
#define BSP_NET_RPC_FRAME_INPUT_H_

#include <cstddef>
#include <cstdlib>
#include <memory>
#include <string>

#include "bsp/net/rpc/rpc_header.h"
#include "bsp/net/tcp_client.h"

namespace bsp {

// Memory for one frame. Its pages cost nothing until they are written to, so that a head which
// announces a large frame and no more cannot take the machine's memory.
class FrameMemory {
 public:
  char* data() const { return data_.get(); }
  size_t capacity() const { return capacity_; }

  // At least `size` bytes; what was in it is gone when it must grow. False when the system refuses.
  bool Reserve(size_t size);
  void Swap(FrameMemory* other);
  void Release();

 private:
  struct Free {
    void operator()(char* memory) const { free(memory); }
  };
  std::unique_ptr<char, Free> data_;
  size_t capacity_ = 0;
};

// Cuts the input of one connection into frames.
//
// A frame of 32 KiB or more of which only the first part has come is given memory of its own, and
// the rest is received there: through the blocks of the receive buffer its bytes would be copied
// twice more. It is handed out in its turn, since nothing is received behind it until then.
//
// Threads: the loop's.
class FrameInput : public ByteSink {
 public:
  // `frame` is where frames are handed out, shared by the inputs of one thread; between frames its
  // memory is lent to a large one under way. Frames above most_bytes, 0 for none, get none.
  FrameInput(std::shared_ptr<FrameMemory> frame, size_t most_bytes);

  // From now on the payload of a large reply lies apart, with the zero byte, in a string that can
  // be given away without a copy.
  void KeepRepliesApart() { keeps_replies_apart_ = true; }
  ~FrameInput() override;

  // Puts the next whole frame into the frame memory, with one zero byte behind it. Anything but
  // kComplete: there is none; *head is filled but for kNoHead. kComplete with a false *is_taken: no
  // memory.
  RpcFrameState Take(const std::shared_ptr<MemoryBuffer>& buffer, RpcHeader* head, bool* is_taken);

  // The payload of the frame just taken, when it lies apart; else null.
  std::string* PayloadApart() { return is_apart_ ? &payload_ : nullptr; }

  char* Room(const std::shared_ptr<MemoryBuffer>& buffer, size_t* room) override;
  bool Took(size_t count) override;

 private:
  bool StartLarge(const std::shared_ptr<MemoryBuffer>& buffer);
  bool TakeLarge();

  const std::shared_ptr<FrameMemory> frame_;
  const size_t most_bytes_;
  bool keeps_replies_apart_ = false;

  RpcHeader large_head_ = {};  // of the large frame under way
  char* large_ = nullptr;      // where it comes to lie; null: none is under way
  size_t large_size_ = 0;      // bytes to come in all
  size_t large_held_ = 0;      // received of them
  FrameMemory large_memory_;
  std::string payload_;  // of a reply, from here on kept for its memory
  bool is_apart_ = false;
};

}  // namespace bsp

#endif  // BSP_NET_RPC_FRAME_INPUT_H_
