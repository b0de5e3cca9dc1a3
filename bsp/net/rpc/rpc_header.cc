#include "bsp/net/rpc/rpc_header.h"

#include <cstring>

#include "bsp/util/memory_buffer.h"

namespace bsp {
namespace {

constexpr size_t kSentNameLimit =
    62;  // the writers' bounded format keeps 62 characters of 64 bytes

}  // namespace

RpcFrameState LookAtRpcFrame(const std::shared_ptr<MemoryBuffer>& buffer, RpcHeader* head) {
  if (buffer == nullptr || buffer->size() < sizeof *head) return RpcFrameState::kNoHead;
  buffer->CopyBytes(reinterpret_cast<char*>(head), size_t{0}, sizeof *head);
  if (head->magic != RPC_MAGIC) return RpcFrameState::kWrongMagic;
  if (head->size < static_cast<int32_t>(sizeof *head)) return RpcFrameState::kBadSize;
  if (buffer->size() < static_cast<size_t>(head->size)) return RpcFrameState::kIncomplete;
  return RpcFrameState::kComplete;
}

int IsHadRpcPack(const std::shared_ptr<MemoryBuffer>& buffer) {
  RpcHeader head;
  switch (LookAtRpcFrame(buffer, &head)) {
    case RpcFrameState::kWrongMagic:
      return -1;
    case RpcFrameState::kComplete:
      return head.size;
    case RpcFrameState::kBadSize:
      return head.size > 0 ? head.size : 0;
    case RpcFrameState::kNoHead:
    case RpcFrameState::kIncomplete:
      break;
  }
  return 0;
}

std::string_view RpcCmdText(const char (&cmd)[64]) { return {cmd, strnlen(cmd, sizeof cmd)}; }

void SetRpcCmd(char (&cmd)[64], const char* name) {
  const size_t length = name == nullptr ? 0 : strnlen(name, kSentNameLimit);
  if (length > 0) memcpy(cmd, name, length);
  memset(cmd + length, 0, sizeof cmd - length);
}

}  // namespace bsp
