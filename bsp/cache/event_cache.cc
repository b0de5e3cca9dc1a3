// Two maps under one key, of which no event may stand in one alone.
//
// A write makes both strings first, where no reader can find them, and then publishes info and data
// by one 64-bit store each. All that can fail comes before the first store: when the second string
// finds no room the first is dropped again, and an event that stood under the key was never
// touched. A reader may still come between the two stores; the records are separate entries.
//
// A writer that is killed leaves, at worst, nodes that belong to no entry. InitWrite empties the
// cache anyway, cell by cell and not key by key, since a damaged one may hold a key twice, and
// takes all nodes back, so that capacity does not shrink with crashes.
//
// A role is built whole in an object of its own and adopted at the end. So a failed init leaves
// nothing attached and may be repeated, and no thread ever sees half a role.
#include "bsp/cache/event_cache.h"

#include <climits>
#include <cstdint>
#include <string>
#include <utility>

#include "bsp/base/c_boundary.h"
#include "bsp/log/log.h"

namespace {

const std::shared_ptr<MSError> kOk;

constexpr char kInfoMap[] = "0x6500000";
constexpr char kDataMap[] = "0x6500001";
constexpr int kDataNodes = 10;  // nodes of the data map for each event
constexpr int kMinNode = 4;     // bytes: the least that a node of the link table may carry

// What the texts call the two reads.
constexpr char kReadInfo[] = "ReadInfo";
constexpr char kReadData[] = "Read";

using Map = shmc::UlongShmHashMap;

// The two segments of a map as the machine sees them, for whoever has to remove one.
std::string DescribeSegments(const std::string& map) {
  std::string text;
  for (const char* table : {"0", "1"}) {
    const std::string name = map + table;
    const std::string found = shmc::impl::SVIPCShmAlloc<false>::DescribeOwner(name);
    text += found.empty() ? "no segment " + name : found;
    text += "; ";
  }
  return text + "ipcrm -M KEY removes one";
}

void EraseAll(const char* what, Map* map) {
  map->Travel([what](unsigned long key, const std::string&) {
    // NOLINTNEXTLINE(bugprone-lambda-function-name): the line bears the name of the walk's step
    BSP_LOG_DEBUG(MOD_DOM, "Erase %s key = %lu.", what, key);
  });
  map->Clear();
}

// What is left of the two totals, by the free share of their maps.
struct Room {
  int info_percent;
  int data_percent;
  int info_size;  // bytes
  int data_size;
};

Room MeasureRoom(const Map& info, int info_total, const Map& data, int data_total) {
  const auto info_percent = static_cast<int>(info.free_percentage());
  const auto data_percent = static_cast<int>(data.free_percentage());
  const auto part = [](int percent, int total) {
    return static_cast<int>(static_cast<int64_t>(percent) * total / 100);
  };
  return {info_percent, data_percent, part(info_percent, info_total),
          part(data_percent, data_total)};
}

void LogRoom(const char* function, const Room& room) {
  _log_debug(MOD_DOM, BSP_LEVEL_DEBUG, BSP_FILE, function, __LINE__,
             "free_percentage = %d%%, %d%%, free_info_size = %d, free_data_size = %d.",
             room.info_percent, room.data_percent, room.info_size, room.data_size);
}

}  // namespace

namespace bsp {

std::shared_ptr<EventCache> EventCache::Instance() {
  // Held by a plain pointer that nobody deletes: it outlives every static, and threads at exit.
  static const auto* const instance =
      new std::shared_ptr<EventCache>(std::make_shared<EventCache>());
  return *instance;
}

// ---- Roles

void EventCache::set_rebuild(bool on) {
  const std::lock_guard<std::mutex> lock(init_mutex_);
  rebuild_ = on;
}

std::shared_ptr<MSError> EventCache::InitWrite(int evt_num, int info_size, int data_size) {
  const std::lock_guard<std::mutex> lock(init_mutex_);
  if (owner_ != nullptr) {
    BSP_LOG_ERROR(MOD_DOM, "InitWrite: this process has a role already");
    return BSP_NEW_ERROR(-1, "EventCache InitForWrite info_kv_map_ failed");
  }
  auto role = std::make_unique<Role>();
  role->is_writer = true;
  role->max_evt_num = evt_num;
  if (evt_num < 1 || info_size < kMinNode ||
      __builtin_mul_overflow(evt_num, info_size, &role->info_total_size)) {
    BSP_LOG_ERROR(MOD_DOM,
                  "InitWrite: evt_num %d, info_size %d: need 1 and %d at least, product at most %d",
                  evt_num, info_size, kMinNode, INT_MAX);
    return BSP_NEW_ERROR(-1, "EventCache InitForWrite info_kv_map_ failed");
  }
  // No product below overflows: a node is smaller than the data of an event.
  const auto events = static_cast<size_t>(evt_num);
  role->info_kv_map_.set_rebuild(rebuild_);
  if (!role->info_kv_map_.InitForWrite(kInfoMap, events, static_cast<size_t>(info_size), events)) {
    BSP_LOG_ERROR(MOD_DOM, "InitWrite: no info map of this shape: %s",
                  DescribeSegments(kInfoMap).c_str());
    return BSP_NEW_ERROR(-1, "EventCache InitForWrite info_kv_map_ failed");
  }
  EraseAll("Info", &role->info_kv_map_);
  if (data_size < kMinNode * kDataNodes ||
      __builtin_mul_overflow(evt_num, data_size, &role->data_total_size)) {
    BSP_LOG_ERROR(MOD_DOM,
                  "InitWrite: evt_num %d, data_size %d: need 1 and %d at least, product at most %d",
                  evt_num, data_size, kMinNode * kDataNodes, INT_MAX);
    return BSP_NEW_ERROR(-1, "EventCache InitForWrite data_kv_map_ failed");
  }
  role->data_kv_map_.set_rebuild(rebuild_);
  if (!role->data_kv_map_.InitForWrite(
          kDataMap, events, static_cast<size_t>(data_size / kDataNodes), events * kDataNodes)) {
    BSP_LOG_ERROR(MOD_DOM, "InitWrite: no data map of this shape: %s",
                  DescribeSegments(kDataMap).c_str());
    return BSP_NEW_ERROR(-1, "EventCache InitForWrite data_kv_map_ failed");
  }
  EraseAll("Data", &role->data_kv_map_);
  Adopt(std::move(role));
  return kOk;
}

std::shared_ptr<MSError> EventCache::InitRead() {
  const std::lock_guard<std::mutex> lock(init_mutex_);
  if (owner_ != nullptr) {
    BSP_LOG_ERROR(MOD_DOM, "InitRead: this process has a role already");
    return BSP_NEW_ERROR(-1, "EventCache InitForRead info_kv_map_ failed");
  }
  auto role = std::make_unique<Role>();
  if (!role->info_kv_map_.InitForRead(kInfoMap)) {
    BSP_LOG_ERROR(MOD_DOM, "InitRead: no info map, has a writer started? %s",
                  DescribeSegments(kInfoMap).c_str());
    return BSP_NEW_ERROR(-1, "EventCache InitForRead info_kv_map_ failed");
  }
  if (!role->data_kv_map_.InitForRead(kDataMap)) {
    BSP_LOG_ERROR(MOD_DOM, "InitRead: no data map, has a writer started? %s",
                  DescribeSegments(kDataMap).c_str());
    return BSP_NEW_ERROR(-1, "EventCache InitForRead data_kv_map_ failed");
  }
  LogRoom(__func__, MeasureRoom(role->info_kv_map_, 0, role->data_kv_map_, 0));
  role->info_kv_map_.Travel([&role](unsigned long key, const std::string&) {
    _log_debug(MOD_DOM, BSP_LEVEL_DEBUG, BSP_FILE, "InitRead", __LINE__, "Data key = %lu.", key);
    role->evt_key_list_.push_back(key);
  });
  Adopt(std::move(role));
  return kOk;
}

void EventCache::Adopt(std::unique_ptr<Role> role) {
  owner_ = std::move(role);
  // Pairs with the acquire in Writer and Read: who sees the role sees it complete.
  role_.store(owner_.get(), std::memory_order_release);
}

EventCache::Role* EventCache::Writer(const char* operation) const {
  Role* const role = role_.load(std::memory_order_acquire);
  if (role != nullptr && role->is_writer) return role;
  BSP_LOG_ERROR(MOD_DOM, "%s: %s", operation,
                role == nullptr ? "no role yet, call InitWrite first" : "this process is a reader");
  return nullptr;
}

// ---- The writer

std::shared_ptr<MSError> EventCache::Write(unsigned long key, const char* info, int info_size,
                                           const char* data, int data_size) {
  Role* const role = Writer(__func__);
  if (role == nullptr) return BSP_NEW_ERROR(-1, "EventCache Write refused, not the writer");
  Map& info_map = role->info_kv_map_;
  Map& data_map = role->data_kv_map_;
  const Room room = MeasureRoom(info_map, role->info_total_size, data_map, role->data_total_size);
  LogRoom(__func__, room);
  BSP_LOG_DEBUG(MOD_DOM, "info_kv_map_.size() = %d, data_kv_map_.size() = %d.",
                static_cast<int>(info_map.size()), static_cast<int>(data_map.size()));
  BSP_LOG_DEBUG(MOD_DOM, "Write key = %lu, info_val_size = %d, data_val_size = %d.", key, info_size,
                data_size);
  if (info == nullptr || data == nullptr || info_size < 1 || data_size < 1) {
    BSP_LOG_ERROR(MOD_DOM, "Write: key %lu, info_size %d, data_size %d: need a byte of each", key,
                  info_size, data_size);
    return BSP_NEW_ERROR(-2, "EventCache Write refused, key %lu, info_size %d, data_size %d", key,
                         info_size, data_size);
  }
  if (room.info_size < info_size) {
    return BSP_NEW_ERROR(-2, "EventCache Write info_kv_map_ full");
  }
  if (room.data_size < data_size) {
    return BSP_NEW_ERROR(-2, "EventCache Write data_kv_map_ full");
  }
  // One more than max_evt_num fits in the list.
  if (static_cast<int64_t>(role->evt_key_list_.size()) > role->max_evt_num) {
    return BSP_NEW_ERROR(-3, "EventCache evt_key_list_ is full");
  }
  std::list<unsigned long> entry = {key};  // may throw, so before anything is stored
  const Map::Prepared new_info = info_map.Prepare(key, info, static_cast<size_t>(info_size));
  if (!new_info) return BSP_NEW_ERROR(-2, "EventCache Write info_kv_map_ full");
  const Map::Prepared new_data = data_map.Prepare(key, data, static_cast<size_t>(data_size));
  if (!new_data) {
    info_map.Drop(new_info);
    return BSP_NEW_ERROR(-2, "EventCache Write data_kv_map_ full");
  }
  info_map.Publish(new_info);
  data_map.Publish(new_data);
  role->evt_key_list_.splice(role->evt_key_list_.end(), entry);
  return kOk;
}

std::shared_ptr<MSError> EventCache::RemoveOldest() {
  Role* const role = Writer(__func__);
  if (role == nullptr) return BSP_NEW_ERROR(-1, "EventCache RemoveOldest refused, not the writer");
  if (role->evt_key_list_.empty()) return BSP_NEW_ERROR(-1, "EventCache RemoveOldest empty");
  const unsigned long key = role->evt_key_list_.front();
  BSP_LOG_DEBUG(MOD_DOM, "RemoveOldest key = %lu.", key);
  role->evt_key_list_.pop_front();
  // False when the key was written twice and is gone already.
  role->info_kv_map_.Erase(key);
  role->data_kv_map_.Erase(key);
  return kOk;
}

std::shared_ptr<MSError> EventCache::Remove(unsigned long key) {
  Role* const role = Writer(__func__);
  if (role == nullptr) return BSP_NEW_ERROR(-1, "EventCache Remove refused, not the writer");
  // False for an unknown key.
  role->info_kv_map_.Erase(key);
  role->data_kv_map_.Erase(key);
  role->evt_key_list_.remove(key);
  return kOk;
}

// ---- Readers

EventCache::Reading EventCache::Read(const Map Role::*map, unsigned long key, char* buffer,
                                     int* size) const {
  const Role* const role = role_.load(std::memory_order_acquire);
  const bool is_length_only = buffer == nullptr;
  if (role == nullptr) return {-1, 0, is_length_only, "no role yet"};
  if (size == nullptr) return {-1, 0, is_length_only, "null size"};
  if (!is_length_only && *size < 0) return {-3, *size, is_length_only, "negative capacity"};
  size_t length = is_length_only ? 0 : static_cast<size_t>(*size);
  const bool is_found = (role->*map).FindC(key, buffer, &length) && length <= INT_MAX;
  if (!is_found) return {is_length_only ? -1 : -3, 0, is_length_only, nullptr};
  *size = static_cast<int>(length);
  return {is_length_only ? 0 : *size, *size, is_length_only, nullptr};
}

std::shared_ptr<MSError> EventCache::ToError(const Reading& reading, const char* operation,
                                             unsigned long key) {
  if (reading.refusal != nullptr) {
    return BSP_NEW_ERROR(reading.code, "%s refused, key %lu, size %d: %s", operation, key,
                         reading.size, reading.refusal);
  }
  if (reading.is_length_only) {
    return reading.code < 0
               ? BSP_NEW_ERROR(-1, "can't find this key %lu", key)
               : BSP_NEW_ERROR(0, "find this key %lu, return data size %d", key, reading.size);
  }
  return reading.code < 0 ? BSP_NEW_ERROR(-3, "read and something failed.")
                          : BSP_NEW_ERROR(reading.code, "%s success key %lu, size %d", operation,
                                          key, reading.size);
}

std::shared_ptr<MSError> EventCache::ReadInfo(unsigned long key, char* info, int* size) {
  return ToError(Read(&Role::info_kv_map_, key, info, size), kReadInfo, key);
}

std::shared_ptr<MSError> EventCache::ReadData(unsigned long key, char* data, int* size) {
  return ToError(Read(&Role::data_kv_map_, key, data, size), kReadData, key);
}

}  // namespace bsp

// ---- The flat C interface

namespace {

std::shared_ptr<bsp::EventCache> InstanceForC(const char* function) {
  std::shared_ptr<bsp::EventCache> cache = bsp::EventCache::Instance();
  if (cache == nullptr) {
    _log_debug(MOD_BSP, BSP_LEVEL_DEBUG, BSP_FILE, function, __LINE__,
               "EventCache Instance is null.");
  }
  return cache;
}

}  // namespace

int bsp::EventCache::ReadForC(const char* function, const Map Role::*map, const char* operation,
                              unsigned long key, char* buffer, int* size) {
  const std::shared_ptr<EventCache> cache = InstanceForC(function);
  if (cache == nullptr) return -1;
  const Reading reading = cache->Read(map, key, buffer, size);
  // The text of a read costs ten times the read.
  const int level = reading.code < 0 ? BSP_LEVEL_ERROR : BSP_LEVEL_DEBUG;
  if (IsLogged(MOD_BSP, level)) {
    _log_debug(MOD_BSP, level, BSP_FILE, function, __LINE__, "%s",
               ToError(reading, operation, key)->Message().c_str());
  }
  return reading.code;
}

void event_cache_set_rebuild(int on) try {
  const auto cache = InstanceForC(__func__);
  if (cache != nullptr) cache->set_rebuild(on != 0);
} catch (...) {
  bsp::FailForC(__func__, 0);
}

int event_cache_init_write(int evt_num, int info_size, int data_size) try {
  const auto cache = InstanceForC(__func__);
  if (cache == nullptr) return -1;
  if (cache->InitWrite(evt_num, info_size, data_size) != kOk) {
    BSP_LOG_DEBUG(MOD_BSP, "EventCache InitWrite failed.");
    return -1;
  }
  return 0;
} catch (...) {
  return bsp::FailForC(__func__, -1);
}

int event_cache_init_read(void) try {
  const auto cache = InstanceForC(__func__);
  if (cache == nullptr) return -1;
  if (cache->InitRead() != kOk) {
    BSP_LOG_DEBUG(MOD_BSP, "EventCache InitRead failed.");
    return -1;
  }
  return 0;
} catch (...) {
  return bsp::FailForC(__func__, -1);
}

int event_cache_write(unsigned long key, const char* info, int info_size, const char* data,
                      int data_size) try {
  const auto cache = InstanceForC(__func__);
  if (cache == nullptr) return -1;
  const std::shared_ptr<MSError> error = cache->Write(key, info, info_size, data, data_size);
  if (error != kOk) {
    BSP_LOG_DEBUG(MOD_BSP, "EventCache Write failed.");
    return error->ErrorCode();
  }
  return 0;
} catch (...) {
  return bsp::FailForC(__func__, -1);
}

int event_cache_read_info(unsigned long key, char* info, int* size) try {
  return bsp::EventCache::ReadForC(__func__, &bsp::EventCache::Role::info_kv_map_, kReadInfo, key,
                                   info, size);
} catch (...) {
  return bsp::FailForC(__func__, -1);
}

int event_cache_read_data(unsigned long key, char* data, int* size) try {
  return bsp::EventCache::ReadForC(__func__, &bsp::EventCache::Role::data_kv_map_, kReadData, key,
                                   data, size);
} catch (...) {
  return bsp::FailForC(__func__, -1);
}

void event_cache_remove_oldest(void) try {
  const auto cache = InstanceForC(__func__);
  if (cache != nullptr) cache->RemoveOldest();  // an empty cache is as good
} catch (...) {
  bsp::FailForC(__func__, 0);
}

void event_cache_remove(unsigned long key) try {
  const auto cache = InstanceForC(__func__);
  if (cache != nullptr) cache->Remove(key);  // has logged why not
} catch (...) {
  bsp::FailForC(__func__, 0);
}
