#include "bsp/log/loss_ledger.h"

#include <algorithm>
#include <iterator>

#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

// In the order of Loss.
constexpr const char* kReasons[] = {
    "log datagrams lost, the receive buffer was full",
    "rows lost, the database did not store them",
    "records lost, there was no database",
    "datagrams refused for their length, magic, type or sender",
};
static_assert(std::size(kReasons) == static_cast<size_t>(Loss::kCount), "a text for each reason");

}  // namespace

void LossLedger::Add(Loss why, uint64_t count, const std::string& detail) {
  if (count == 0) return;
  Entry& entry = entries_[static_cast<size_t>(why)];
  if (entry.lost == entry.told) entry.since = TimeUtil::TimeMillisStr();
  entry.lost += count;
  if (!detail.empty()) entry.detail = detail;
}

bool LossLedger::HasUntold() const {
  return std::any_of(std::begin(entries_), std::end(entries_),
                     [](const Entry& entry) { return entry.lost != entry.told; });
}

std::string LossLedger::Text(Loss why) const {
  const Entry& entry = entries_[static_cast<size_t>(why)];
  if (entry.lost == entry.carried) return std::string();
  return StringHelper::Format("%llu %s, since %s%s%s",
                              static_cast<unsigned long long>(entry.lost - entry.carried),
                              kReasons[static_cast<size_t>(why)], entry.since.c_str(),
                              entry.detail.empty() ? "" : ": ", entry.detail.c_str());
}

void LossLedger::Carried(Loss why) {
  Entry& entry = entries_[static_cast<size_t>(why)];
  entry.carried = entry.lost;
}

void LossLedger::Committed() {
  for (Entry& entry : entries_) entry.told = entry.carried;
}

void LossLedger::RolledBack() {
  for (Entry& entry : entries_) entry.carried = entry.told;
}

}  // namespace bsp
