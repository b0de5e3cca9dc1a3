#include "apps/common/line_gate.h"

#include <algorithm>
#include <cstring>

namespace app {
namespace {

// FNV-1a. The text and not its address: two places of one format are one reason.
uint64_t HashOf(const char* text) {
  uint64_t hash = 14695981039346656037u;
  for (; *text != '\0'; ++text) {
    hash = (hash ^ static_cast<unsigned char>(*text)) * 1099511628211u;
  }
  return hash;
}

}  // namespace

bool LineGate::Admit(const char* format, int level, std::string_view line, int64_t now_ms) {
  const uint64_t hash = HashOf(format);
  Reason& reason = Find(hash);
  Repeat& held = reason.held;
  if (reason.told == 0) {
    reason.hash = hash;
    reason.due_ms = now_ms + kRefillMs;
  }
  // Once something is held, all that follows is: the lines stay in order.
  if (reason.told < kBurst && held.count == 0) {
    ++reason.told;
    return true;
  }
  held.is_mixed = held.is_mixed || reason.hash != hash;
  held.level = held.count == 0 ? level : std::min(held.level, level);
  ++held.count;
  held.size = std::min(line.size(), kMostBytes);
  memcpy(held.latest, line.data(), held.size);
  return false;
}

LineGate::Reason& LineGate::Find(uint64_t hash) {
  Reason* free = nullptr;
  for (size_t i = 0; i < kReasons; ++i) {
    if (reasons_[i].told == 0) {
      if (free == nullptr) free = &reasons_[i];
    } else if (reasons_[i].hash == hash) {
      return reasons_[i];
    }
  }
  return free != nullptr ? *free : reasons_[kReasons];
}

const LineGate::Repeat* LineGate::TakeDue(int64_t now_ms) {
  for (Reason& reason : reasons_) {
    if (reason.told == 0 || reason.due_ms > now_ms) continue;
    reason.due_ms = now_ms + kRefillMs;
    if (reason.held.count == 0) {
      --reason.told;
      continue;
    }
    // The place that came back is in use again.
    due_ = reason.held;
    reason.held.count = 0;
    reason.held.is_mixed = false;
    return &due_;
  }
  return nullptr;
}

int64_t LineGate::NextDueMs() const {
  int64_t due_ms = INT64_MAX;
  for (const Reason& reason : reasons_) {
    if (reason.told > 0) due_ms = std::min(due_ms, reason.due_ms);
  }
  return due_ms;
}

}  // namespace app
