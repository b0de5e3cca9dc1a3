#include "bsp/log/log_tag_index.h"

#include <link.h>

#include <cstring>

namespace bsp {
namespace {

// What OfOwnObject looks for.
struct Place {
  uintptr_t address;
  bool is_found;
};

bool HoldsReadOnly(const dl_phdr_info& object, uintptr_t address) {
  for (int i = 0; i < object.dlpi_phnum; ++i) {
    const auto& segment = object.dlpi_phdr[i];
    if (segment.p_type != PT_LOAD || (segment.p_flags & PF_W) != 0) continue;
    if (address - object.dlpi_addr - segment.p_vaddr < segment.p_memsz) return true;
  }
  return false;
}

// A step of dl_iterate_phdr.
int LookInObject(dl_phdr_info* object, size_t, void* data) {
  Place* place = static_cast<Place*>(data);
  const bool is_program = object->dlpi_name[0] == '\0';
  // Our own code lies in the same kind of segment as our literals.
  const bool is_library = HoldsReadOnly(*object, reinterpret_cast<uintptr_t>(&LookInObject));
  place->is_found = (is_program || is_library) && HoldsReadOnly(*object, place->address);
  return place->is_found ? 1 : 0;
}

// Whether the text stays where it is, unchanged, as long as the process lives.
bool IsLiteral(const char* text) {
  Place place = {reinterpret_cast<uintptr_t>(text), false};
  dl_iterate_phdr(&LookInObject, &place);
  return place.is_found;
}

}  // namespace

void LogTagIndex::Set(const std::string& tag, const int32_t* level) {
  Tag* known = FindInChain(tag.c_str(), tag.size());
  if (known != nullptr) {
    // pairs with the acquire in FindLiteral and FindByText
    known->level.store(level, std::memory_order_release);
    return;
  }
  std::atomic<Tag*>& chain = chains_[ChainOf(tag.c_str(), tag.size())];
  Tag& added = tags_.emplace_back();
  added.next = chain.load(std::memory_order_relaxed);
  added.text = tag;
  added.level.store(level, std::memory_order_relaxed);
  chain.store(&added, std::memory_order_release);  // pairs with the acquire in FindInChain
}

void LogTagIndex::Clear() {
  for (Literal& literal : literals_) {
    literal.tag = nullptr;
    literal.address.store(nullptr, std::memory_order_relaxed);
  }
  for (auto& chain : chains_) chain.store(nullptr, std::memory_order_relaxed);
  tags_.clear();
}

// The length and three characters: tags of one program differ there or in few others.
size_t LogTagIndex::ChainOf(const char* tag, size_t length) {
  if (length == 0) return 0;
  const auto at = [tag](size_t i) { return static_cast<unsigned char>(tag[i]); };
  return (length + at(length - 1) + 5u * at(length / 2) + 17u * at(0)) % kChains;
}

const int32_t* LogTagIndex::FindByText(const char* tag) {
  const Tag* known = FindInChain(tag, strlen(tag));
  if (known == nullptr) return nullptr;
  Remember(tag, known);
  return known->level.load(std::memory_order_acquire);
}

// Whoever finds another thread here leaves it to its next call.
void LogTagIndex::Remember(const char* tag, const Tag* known) {
  Literal& literal = literals_[EntryOf(tag)];
  if (literal.address.load(std::memory_order_relaxed) != nullptr) return;
  if (is_remembering_.test_and_set(std::memory_order_acquire)) return;
  if (literal.address.load(std::memory_order_relaxed) == nullptr) {
    literal.tag = IsLiteral(tag) ? known : nullptr;
    literal.address.store(tag, std::memory_order_release);  // pairs with the acquire in FindLiteral
  }
  is_remembering_.clear(std::memory_order_release);
}

LogTagIndex::Tag* LogTagIndex::FindInChain(const char* tag, size_t length) const {
  // pairs with the release in Set
  Tag* known = chains_[ChainOf(tag, length)].load(std::memory_order_acquire);
  while (known != nullptr &&
         (known->text.size() != length || memcmp(known->text.data(), tag, length) != 0)) {
    known = known->next;
  }
  return known;
}

}  // namespace bsp
