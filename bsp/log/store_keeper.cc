#include "bsp/log/store_keeper.h"

#include <sys/stat.h>

#include <utility>

#include "bsp/log/log.h"
#include "bsp/log/own_record.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace bsp {
namespace {

const std::shared_ptr<MSError> kOk;

constexpr int64_t kLookSeconds = 60;
constexpr size_t kMostKept = 1000;  // 1.1 MB

}  // namespace

StoreKeeper::StoreKeeper(LogSrvCfg& cfg, const DataBaseOptions& database,
                         const StoreKeeperOptions& options, LossLedger* ledger)
    : cfg_(cfg), database_(database), options_(options), ledger_(ledger) {}

std::shared_ptr<MSError> StoreKeeper::Open() {
  look_time_ = TimeUtil::ClockSecond();
  const auto error = TryOpen();
  if (error == kOk || !options_.may_be_absent) return error;
  BSP_LOG_ERROR(MOD_BSP, "no log store, the newest %zu records are kept in memory: %s", kMostKept,
                error->Message().c_str());
  return kOk;
}

std::shared_ptr<MSError> StoreKeeper::TryOpen() {
  store_ = std::make_unique<SysLogRec>(cfg_, database_, ledger_);
  if (!store_->Init(cfg_.log_db_file)) {
    const auto error = store_->InitError();
    store_.reset();
    return error;
  }
  struct stat info = {};
  stat(cfg_.log_db_file.c_str(), &info);  // gone already: noticed at the first look
  device_ = info.st_dev;
  inode_ = info.st_ino;
  return kOk;
}

void StoreKeeper::Record(const LogMsg& msg) {
  if (store_) {
    store_->Record(msg);
    return;
  }
  const bool is_kept = SysLogRec::HasTable(msg.type);
  if (is_kept) kept_.push_back(msg);
  if (is_kept && kept_.size() <= kMostKept) return;
  if (is_kept) kept_.pop_front();
  if (ledger_ != nullptr) ledger_->Add(is_kept ? Loss::kNoStore : Loss::kRefused, 1);
}

void StoreKeeper::Recycle() {
  if (store_) store_->Recycle();
}

void StoreKeeper::Flush() {
  if (store_) {
    store_->Flush();
  } else if (!kept_.empty()) {
    BSP_LOG_ERROR(MOD_BSP, "%zu records are lost, there is no log store", kept_.size());
  }
}

void StoreKeeper::LookAfter(int64_t now) {
  if (now - look_time_ < kLookSeconds) return;
  look_time_ = now;
  if (store_ && options_.watches_file && IsFileGone()) {
    const std::string text = StringHelper::Format(
        "the log database %s was removed or replaced, with its rows; a new one is begun",
        cfg_.log_db_file.c_str());
    BSP_LOG_ERROR(MOD_BSP, "%s", text.c_str());
    store_->Abandon();
    store_.reset();
    Record(MakeOwnRecord(BSP_LEVEL_ERROR, text));
  }
  if (!store_ && TryOpen() == kOk) StoreKept();
}

bool StoreKeeper::IsFileGone() const {
  struct stat info = {};
  return stat(cfg_.log_db_file.c_str(), &info) != 0 || info.st_dev != device_ ||
         info.st_ino != inode_;
}

void StoreKeeper::StoreKept() {
  BSP_LOG_NOTICE(MOD_BSP, "the log store %s is open again, %zu records were kept in memory",
                 cfg_.log_db_file.c_str(), kept_.size());
  for (const LogMsg& msg : std::exchange(kept_, {})) store_->Record(msg);
}

}  // namespace bsp
