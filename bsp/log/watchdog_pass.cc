#include "bsp/log/watchdog_pass.h"

#include <algorithm>
#include <utility>

namespace bsp {
namespace {

// A pass is due after 5 s, and an idle turn of the loop takes 1.
constexpr int64_t kLatePassSeconds = kWdgPassSeconds + 2;

}  // namespace

void WatchdogPass::Begin(int64_t now) {
  time_ = now;
  is_skipped_ = false;
}

bool WatchdogPass::Enter(int64_t now) {
  is_skipped_ = is_fair_ && !is_skipped_ && now - time_ > kLatePassSeconds;
  time_ = now;
  return !is_skipped_;
}

std::vector<LateModule> WatchdogPass::Spare(std::vector<LateModule>* late, int64_t now) {
  if (!is_fair_) return {};
  const auto is_judged = [this, now](const LateModule& module) {
    const bool is_lost_inside = lost_time_ != -1 && now - lost_time_ <= module.elapsed;
    return !is_lost_inside || module.elapsed > 2 * int64_t{module.timeout};
  };
  const auto first_spared = std::stable_partition(late->begin(), late->end(), is_judged);
  std::vector<LateModule> told;
  std::set<std::string> spared;
  for (auto module = first_spared; module != late->end(); ++module) {
    if (spared_.count(module->name) == 0) told.push_back(*module);
    spared.insert(module->name);
  }
  late->erase(first_spared, late->end());
  spared_ = std::move(spared);
  return told;
}

std::vector<LateModule> WatchdogPass::TakeNew(const std::vector<LateModule>& late) {
  std::vector<LateModule> told;
  std::set<std::string> names;
  for (const LateModule& module : late) {
    if (late_.count(module.name) == 0) told.push_back(module);
    names.insert(module.name);
  }
  late_ = std::move(names);
  return told;
}

}  // namespace bsp
