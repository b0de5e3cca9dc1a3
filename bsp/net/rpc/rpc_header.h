// The frame of the RPC bus.
//
// A connection between a client and the broker carries, both ways, one unbroken row of frames: a
// head of 104 bytes and a payload of 0 or more bytes behind it, no separator, no padding, all
// numbers in native byte order. A frame may arrive in any number of pieces. Offsets, an example in
// bytes and what a reader refuses: docs/formats.md.
#ifndef BSP_NET_RPC_RPC_HEADER_H_
#define BSP_NET_RPC_RPC_HEADER_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string_view>

#include "bsp/base/macros.h"
#include "bsp/bsp.h"

// The head of every frame, and the whole of one without payload.
struct RpcHeader {
  uint32_t magic;     // RPC_MAGIC
  int32_t size;       // of the whole frame in bytes, this head included
  int32_t type;       // RPC_TYPE_*
  uint32_t seq;       // given by the client that starts the exchange; a reply carries its request's
  int32_t pid;        // process id of the client that wrote the frame; a claim, never proven
  int32_t err_code;   // outcome in a reply, 0 in all other frames; the codes are told below
  int64_t cli_hdl;    // set by the broker: its descriptor of the requester's connection
  int64_t timestamp;  // TimeUtil::ClockMillis of the sender; no reader acts on it
  char cmd[64];       // name of the command, zero-terminated; a reader trusts no terminator
};

// Payload of a listen frame, of a check-power frame and of the good reply to the latter.
struct RpcListenRecord {
  char cmd[64];   // name of the command, zero-terminated; a reader trusts no terminator
  int32_t type;   // kind of the command: RPC_TYPE_REQUEST or RPC_TYPE_MESSAGE; -1 in a question
  int32_t power;  // right level: stored and told, with no meaning to the bus; -1 in a question
};

// Codes that travel in err_code. The broker writes RPC_ERR_NOT_FOUND and RPC_ERR_TAKEN, with its
// limits RPC_ERR_FAILED and RPC_ERR_BUSY, with its table of calls RPC_ERR_LISTENER_GONE, with its
// rights RPC_ERR_DENIED; a listener what its handler returned below 0. The other RPC_ERR_* arise in
// the client. What each asks of the caller stands at the enum in bsp/bsp.h.

#define RPC_MAGIC 0xabcd1234u

static_assert(sizeof(RpcHeader) == 104, "frame layout");
static_assert(offsetof(RpcHeader, magic) == 0 && offsetof(RpcHeader, size) == 4, "frame layout");
static_assert(offsetof(RpcHeader, type) == 8 && offsetof(RpcHeader, seq) == 12, "frame layout");
static_assert(offsetof(RpcHeader, pid) == 16 && offsetof(RpcHeader, err_code) == 20, "frame");
static_assert(offsetof(RpcHeader, cli_hdl) == 24, "frame layout");
static_assert(offsetof(RpcHeader, timestamp) == 32, "frame layout");
static_assert(offsetof(RpcHeader, cmd) == 40, "frame layout");
static_assert(sizeof(RpcListenRecord) == 72, "frame layout");
static_assert(offsetof(RpcListenRecord, type) == 64, "frame layout");
static_assert(offsetof(RpcListenRecord, power) == 68, "frame layout");

namespace bsp {

class MemoryBuffer;

using ::RpcHeader;
using ::RpcListenRecord;

// What stands at the front of a receive buffer. 0: no whole frame yet. -1: 104 bytes are there and
// their magic is wrong. Above 0: a whole frame of so many bytes, which may be below 104 when its
// writer was broken: see LookAtRpcFrame. Consumes nothing. A null buffer gives 0.
BSP_EXPORT int IsHadRpcPack(const std::shared_ptr<MemoryBuffer>& buffer);

enum class RpcFrameState {
  kNoHead,      // fewer than 104 bytes
  kIncomplete,  // a good head, and not yet all of its frame
  kComplete,    // head->size bytes can be taken
  kWrongMagic,
  kBadSize,  // head->size is below 104, possibly negative: no way to tell where the frame ends
};

// The same look with the two broken cases told apart. *head is filled but for kNoHead.
BSP_EXPORT RpcFrameState LookAtRpcFrame(const std::shared_ptr<MemoryBuffer>& buffer,
                                        RpcHeader* head);

// The text of a cmd field, at most its 64 bytes.
BSP_EXPORT std::string_view RpcCmdText(const char (&cmd)[64]);

// Writes a name as clients do: at most 62 characters, and zeros behind them. Null writes none.
BSP_EXPORT void SetRpcCmd(char (&cmd)[64], const char* name);

}  // namespace bsp

#endif  // BSP_NET_RPC_RPC_HEADER_H_
