// How frames come in: small ones through the receive buffer, large ones straight to their place.
#ifndef BSP_NET_RPC_FRAME_INPUT_H_
#define BSP_NET_RPC_FRAME_INPUT_H_

#include <cstddef>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>

#include "bsp/net/rpc/rpc_header.h"
#include "bsp/net/tcp_client.h"

namespace bsp {

// What becomes of a frame before it is taken.
enum class Admission {
  kPass,
  kWait,   // it stays where it is, and nothing more is read
  kRefuse  // it is thrown away
};

// A whole frame where it lies; nobody owns it, and the next one may take its place.
struct Frame {
  RpcHeader* head = nullptr;
  char* payload = nullptr;  // a zero byte stands behind it
  size_t size = 0;          // of both, 104 at least

  explicit operator bool() const { return head != nullptr; }
  size_t payload_size() const { return size - sizeof(RpcHeader); }
};

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

// Where the frames of one connection come to lie: small ones in a memory that all connections of a
// thread share, since frames are handled one at a time; a large one under way in one of its own,
// borrowed from the shared one where that is free.
//
// Threads: the loop's, as all below.
class FrameStore {
 public:
  explicit FrameStore(std::shared_ptr<FrameMemory> shared);
  virtual ~FrameStore();

  // For a whole frame of `size` bytes and the zero byte; null without memory.
  char* Small(size_t size);

  // For a large frame with this head, that lie from byte number *from of the frame on, and in *room
  // how many. Null without memory.
  virtual char* Begin(const RpcHeader& head, size_t* from, size_t* room);

  // The large frame, when all its bytes are there. Null without memory. Its place is kept until
  // Recycle.
  virtual Frame End(const RpcHeader& head);

  // The memory of a large frame that is done with, or given up, serves the next one. The shared
  // memory never shrinks by it.
  virtual void Recycle();

 protected:
  const std::shared_ptr<FrameMemory> shared_;
  FrameMemory large_;
};

// The same for an end that wants large answers apart from their head, in a string that can be given
// away without a copy.
class ReplyStore : public FrameStore {
 public:
  using FrameStore::FrameStore;

  char* Begin(const RpcHeader& head, size_t* from, size_t* room) override;
  Frame End(const RpcHeader& head) override;
  void Recycle() override;

  // The payload of the frame that End gave, and one zero byte; null when it stands behind its head.
  std::string* PayloadApart() { return is_apart_ ? &payload_ : nullptr; }

 private:
  std::string payload_;  // from here on kept for its memory
  bool is_apart_ = false;
};

// Cuts the input of one connection into frames.
//
// A frame of 32 KiB or more of which only the first part has come is given memory of its own, and
// the rest is received there: through the blocks of the receive buffer its bytes would be copied
// twice more. It is handed out in its turn, since nothing is received behind it until then.
class FrameInput : public ByteSink {
 public:
  // Decides about a large frame when its head has come, and again at each read while it waits. The
  // bytes of a refused one are received and thrown away.
  using Decide = std::function<Admission(const RpcHeader& head)>;

  // Without `decide` every frame is taken.
  explicit FrameInput(std::shared_ptr<FrameStore> store, Decide decide = nullptr);
  ~FrameInput() override;

  // What stands next. *head is filled but for kNoHead.
  RpcFrameState Look(const std::shared_ptr<MemoryBuffer>& buffer, RpcHeader* head);

  // Takes the complete frame that Look has just told of. A null one: no memory for it.
  Frame Take(const std::shared_ptr<MemoryBuffer>& buffer, const RpcHeader& head);

  // The same, thrown away.
  void Discard(const std::shared_ptr<MemoryBuffer>& buffer, const RpcHeader& head);

  // Bytes of memory held by a large frame under way, in full from its head on.
  size_t LargeBytes() const { return large_ != nullptr ? large_size_ : 0; }

  // Throws the frame of which bytes are still to come away, its memory now, its bytes as they come,
  // and fills *head. False when there is none.
  bool GiveUp(const std::shared_ptr<MemoryBuffer>& buffer, RpcHeader* head);

  char* Room(const std::shared_ptr<MemoryBuffer>& buffer, size_t* room) override;
  bool Took(size_t count) override;

 private:
  bool IsUnderWay() const { return large_ != nullptr && large_held_ < large_size_; }
  bool StartLarge(const std::shared_ptr<MemoryBuffer>& buffer);
  void EndLarge();
  void Skip(const std::shared_ptr<MemoryBuffer>& buffer, size_t size);

  const std::shared_ptr<FrameStore> store_;
  const Decide decide_;

  RpcHeader large_head_ = {};  // of the large frame under way
  char* large_ = nullptr;      // where it comes to lie; null: none is under way
  size_t large_size_ = 0;      // bytes to come there in all
  size_t large_held_ = 0;      // received of them
  size_t skip_ = 0;            // bytes to come that are thrown away
  bool is_taken_ = false;      // the large frame is handed out, its memory to be recycled
};

}  // namespace bsp

#endif  // BSP_NET_RPC_FRAME_INPUT_H_
