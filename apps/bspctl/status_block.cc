#include "apps/bspctl/status_block.h"

#include <CLI/StringTools.hpp>
#include <cstring>
#include <fstream>

#include "bsp/shmc/shm_handle.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace ctl {
namespace {

constexpr int kLogPort = 12122;
constexpr const char* kLevelNames[] = {"emerg", "alert",  "crit", "error",
                                       "warn",  "notice", "info", "debug"};

// A word of the block, which other processes write at any time.
template <typename Word>
Word Load(const Word& word) {
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

std::string Name(const char (&field)[32]) { return std::string(field, strnlen(field, 32)); }

ModuleView View(const bsp::ModSta& record, int index) {
  ModuleView view;
  view.index = index;
  view.name = Name(record.mod_name);
  view.is_running = Load(record.running) != 0;
  view.age_s = bsp::TimeUtil::ClockSecond() - Load(record.feed_time);
  view.timeout_s = Load(record.timeout);
  // The server's own rule: a module that fed since its last check is not late.
  view.is_late = Load(record.feed_cnt) == 0 && view.age_s > view.timeout_s;
  view.level = Load(record.log_level);
  for (const bsp::LogModSta& slot : record.logs) {
    if (slot.log_name[0] != '\0') view.tags.push_back({Name(slot.log_name), Load(slot.log_level)});
  }
  return view;
}

}  // namespace

std::optional<std::vector<ModuleView>> ReadModules() {
  shmc::ShmHandle<bsp::SystemStatus, shmc::impl::SVIPCShmAlloc<false>> block;
  if (!block.InitForRead(bsp::kSystemStatusName, bsp::kSystemStatusSize)) return std::nullopt;
  std::vector<ModuleView> modules;
  for (int i = 0; i < bsp::kMaxModules; ++i) {
    const bsp::ModSta& record = block.ptr()->mods[i];
    if (record.mod_name[0] != '\0') modules.push_back(View(record, i));
  }
  return modules;
}

bool IsLogServerRunning() {
  // The kernel's list of UDP sockets: "sl local_address ...", the port as four hex digits behind a
  // colon. Binding the port to try it would take it from a server that is just starting.
  std::ifstream sockets("/proc/net/udp");
  const std::string port = bsp::StringHelper::Format(":%04X", kLogPort);
  std::string slot;
  std::string local;
  std::string rest;
  while (sockets >> slot >> local && std::getline(sockets, rest)) {
    if (local.size() > 5 && local.compare(local.size() - 5, 5, port) == 0) return true;
  }
  return false;
}

std::optional<int> ParseLevel(const std::string& given) {
  const std::string text = CLI::detail::to_lower(given);
  for (int level = 0; level < 8; ++level) {
    if (text == kLevelNames[level] || text == std::to_string(level)) return level;
  }
  if (text == "panic") return BSP_LEVEL_EMERG;
  if (text == "err") return BSP_LEVEL_ERROR;
  if (text == "warning") return BSP_LEVEL_WARN;
  return std::nullopt;
}

std::string LevelText(int32_t level) {
  if (level < 0 || level > 7) return std::to_string(level);
  return std::to_string(level) + " " + kLevelNames[level];
}

}  // namespace ctl
