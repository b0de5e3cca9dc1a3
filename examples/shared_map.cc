// A map in shared memory: one process writes, any number read, without a lock. Here both ends stand
// in one program, and the segments are removed at the end.
#include <cstdio>
#include <string>

#include "bsp/shmc/shm_alloc.h"
#include "bsp/shmc/shm_hash_map.h"

namespace {

using Map = shmc::UlongShmHashMap;  // unsigned long to bytes

constexpr const char* kName = "0x6700000";  // the segments 0x67000000 and 0x67000001

int Run() {
  Map writer;
  // 100 keys, values in nodes of 32 bytes, 1000 of them.
  if (!writer.InitForWrite(kName, 100, 32, 1000)) return 1;
  const std::string state = "open since 12:30";
  if (!writer.Replace(7, state.data(), state.size())) return 1;

  Map reader;
  char text[64];
  size_t length = sizeof text;  // in: the room, out: the length of the value
  if (!reader.InitForRead(kName) || !reader.FindC(7, text, &length)) return 1;
  printf("door 7 is %.*s\n", static_cast<int>(length), text);
  return 0;
}

}  // namespace

int main() {
  // What goes wrong is told here.
  shmc::impl::Utils<void>::log_level = shmc::kLogWarning;
  shmc::impl::Utils<void>::log_func = [](shmc::LogLevel level, const char* text) {
    fprintf(stderr, "shmc %d: %s", static_cast<int>(level), text);
  };
  const int code = Run();
  shmc::impl::SVIPCShmAlloc<false> segments;
  for (const char* end : {"0", "1"}) segments.Unlink(std::string(kName) + end);
  return code;
}
