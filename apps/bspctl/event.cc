// bspctl event: the shared event cache, read as any module reads it.
#include <algorithm>
#include <memory>
#include <string>

#include "apps/bspctl/ctl.h"
#include "apps/bspctl/sysv.h"
#include "bsp/shmc/shm_alloc.h"
#include "bsp/shmc/shm_hash_map.h"

namespace ctl {
namespace {

using Map = shmc::ShmHashMap<unsigned long, shmc::impl::SVIPCShmAlloc<false>>;

constexpr const char* kInfoName = "0x6500000";
constexpr const char* kDataName = "0x6500001";
constexpr key_t kFirstKey = 0x65000000;  // of the segments behind the two

struct Cache {
  Map info;
  Map data;
};

// Null, with the reason told, when there is no cache that can be read.
std::shared_ptr<Cache> Open() {
  auto cache = std::make_shared<Cache>();
  if (cache->info.InitForRead(kInfoName) && cache->data.InitForRead(kDataName)) return cache;
  FailToAttach(kFirstKey, kFailed, "there is no event cache: its writer has not run yet");
  return nullptr;
}

// The whole value of a key; false when there is none, or it was replaced faster than it could be
// read.
bool ReadValue(const Map& map, unsigned long key, std::string* value) {
  size_t length = 0;
  if (!map.FindC(key, nullptr, &length)) return false;
  value->resize(length);
  if (!map.FindC(key, &(*value)[0], &length)) return false;
  const bool is_whole = length <= value->size();  // a longer one may have come between the two
  value->resize(std::min(length, value->size()));
  return is_whole;
}

int List(bool as_json) {
  const auto cache = Open();
  if (cache == nullptr) return kFailed;
  Table table({"KEY", "INFO", "DATA BYTES"});
  cache->info.Travel([&](const unsigned long& key, const std::string& info) {
    std::string data;
    const bool has_data = ReadValue(cache->data, key, &data);
    if (as_json) {
      Json line = {{"key", key}, {"info", ToJson(info)}};
      if (has_data) line["data_bytes"] = data.size();
      PrintJson(line);
    }
    table.AddRow(
        {std::to_string(key), OneLine(info), has_data ? std::to_string(data.size()) : "-"});
  });
  if (!as_json) table.Print();
  return kDone;
}

int Get(unsigned long key, bool as_json) {
  const auto cache = Open();
  if (cache == nullptr) return kFailed;
  std::string info;
  std::string data;
  const bool has_info = ReadValue(cache->info, key, &info);
  const bool has_data = ReadValue(cache->data, key, &data);
  if (!has_info && !has_data) return Fail(kFailed, "no event %lu", key);
  if (as_json) {
    Json line = {{"key", key}};
    if (has_info) line["info"] = ToJson(info);
    if (has_data) line["data"] = ToJson(data);
    PrintJson(line);
    return kDone;
  }
  Table table({"RECORD", "CONTENT"});
  if (has_info) table.AddRow({"info", OneLine(info)});
  if (has_data) table.AddRow({"data", OneLine(data)});
  table.Print();
  return kDone;
}

}  // namespace

void AddEvent(CLI::App* app, Context* context) {
  CLI::App* noun = app->add_subcommand("event", "the shared event cache");
  noun->require_subcommand(1);
  AddVerb(noun, context, "list", "show all events", [=] { return List(context->json); });

  auto key = std::make_shared<unsigned long>(0);
  CLI::App* get =
      AddVerb(noun, context, "get", "show one event", [=] { return Get(*key, context->json); });
  get->add_option("key", *key, "number of the event")->required();
}

}  // namespace ctl
