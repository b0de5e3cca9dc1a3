// Records with a length in front, cut out of a stream that comes in any pieces.
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "bsp/util/memory_buffer.h"

namespace {

// False while the next record is not complete.
bool NextRecord(bsp::MemoryBuffer* stream, std::string* record) {
  uint8_t length = 0;
  if (!stream->CopyBytes(0, reinterpret_cast<char*>(&length), 1)) return false;
  if (stream->Length() < 1u + length) return false;
  stream->ReadBytes(nullptr, 1);
  record->clear();
  return length == 0 || stream->ReadString(record, length);
}

}  // namespace

int main() {
  const auto stream = bsp::MemoryBuffer::Create();
  std::string record;
  for (const char* piece : {"\4lam", "p\4do", "or"}) {
    stream->WriteString(piece);
    while (NextRecord(stream.get(), &record)) printf("record %s\n", record.c_str());
  }
  return stream->Length() == 0 ? 0 : 1;
}
