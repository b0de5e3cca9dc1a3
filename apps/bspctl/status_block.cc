#include "apps/bspctl/status_block.h"

#include <CLI/StringTools.hpp>
#include <fstream>
#include <utility>

#include "bsp/log/module_census.h"
#include "bsp/log/status_block.h"
#include "bsp/log/sys_log_cli.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace ctl {
namespace {

using bsp::LoadWord;

constexpr const char* kLevelNames[] = {"emerg", "alert",  "crit", "error",
                                       "warn",  "notice", "info", "debug"};

ModuleView View(const bsp::ModSta& record, int index) {
  const int64_t now = bsp::TimeUtil::ClockSecond();
  const int64_t fed = LoadWord(record.feed_time);
  const int holders = bsp::CountHolders(index);
  ModuleView view;
  view.index = index;
  view.name = bsp::NameOf(record.mod_name);
  // The word says who registered the name; who lives is known to the kernel, if to anyone.
  view.is_dead = LoadWord(record.running) != 0 && holders == 0;
  view.is_running = holders > 0 || (LoadWord(record.running) != 0 && !view.is_dead);
  if (fed >= 0 && fed <= now) view.age_s = now - fed;
  view.timeout_s = LoadWord(record.timeout);
  // The server's own rule: a module that fed since its last check is not late. Garbage is.
  view.is_late = LoadWord(record.feed_cnt) == 0 && view.age_s.value_or(INT64_MAX) > view.timeout_s;
  view.level = LoadWord(record.log_level);
  for (const bsp::LogModSta& slot : record.logs) {
    const std::string tag = bsp::NameOf(slot.log_name);
    if (!tag.empty()) view.tags.push_back({tag, LoadWord(slot.log_level)});
  }
  return view;
}

}  // namespace

std::optional<std::vector<ModuleView>> ReadModules() {
  bsp::StatusBlockHandle block;
  if (!block.InitForRead(bsp::kSystemStatusName, bsp::kSystemStatusSize)) return std::nullopt;
  std::vector<ModuleView> modules;
  for (int i = 0; i < bsp::kMaxModules; ++i) {
    const bsp::ModSta& record = block.ptr()->mods[i];
    ModuleView view = View(record, i);
    if (!view.name.empty()) modules.push_back(std::move(view));
  }
  return modules;
}

bool IsLogServerRunning() {
  // The kernel's list of UDP sockets: "sl local_address ...", the port as four hex digits behind a
  // colon. Binding the port to try it would take it from a server that is just starting.
  std::ifstream sockets("/proc/net/udp");
  const std::string port = bsp::StringHelper::Format(":%04X", bsp::kLogPort);
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
