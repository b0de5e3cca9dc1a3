#include "bsp/log/log_srv_cfg.h"

#include <set>
#include <stdexcept>

#include "bsp/log/ini.h"
#include "bsp/log/log.h"
#include "bsp/util/string_helper.h"

namespace bsp {
namespace {

// Longer names are cut in the status block, so that the module never finds its record.
constexpr size_t kMostModuleChars = 30;

class CfgReader {
 public:
  CfgReader(const std::string& path, bool is_guarded, std::string* error)
      : path_(path), is_guarded_(is_guarded), error_(error) {
    try {
      file_.load(path_);
    } catch (const std::logic_error& fault) {
      *error_ = path_ + ": " + fault.what();
      throw;
    }
    BSP_LOG_INFO(MOD_BSP, "ini size %d.\n", static_cast<int>(file_.size()));
  }

  void Read(const char* section, const std::string& key, std::string* value) const {
    const ini::IniField* field = Find(section, key);
    if (field != nullptr) *value = field->as<std::string>();
  }

  void Read(const char* section, const std::string& key, int32_t* value) const {
    const ini::IniField* field = Find(section, key);
    if (field == nullptr) return;
    try {
      *value = field->as<int>();
      if (is_guarded_ && IsOddNumber(field->as<std::string>())) {
        BSP_LOG_WARN(MOD_BSP, "%s: l.%d: %s = %s is read as hexadecimal, %d", path_.c_str(),
                     field->line(), key.c_str(), field->as<std::string>().c_str(), *value);
      }
    } catch (const std::invalid_argument& fault) {
      *error_ = StringHelper::Format("%s: l.%d: %s = %s: %s", path_.c_str(), field->line(),
                                     key.c_str(), field->as<std::string>().c_str(), fault.what());
      throw;
    }
  }

  // A size of 0 or below trims its table to one row at each turn.
  void ReadSize(const char* section, const std::string& key, int32_t* size) const {
    const int32_t usual = *size;
    Read(section, key, size);
    if (*size > 0 || !is_guarded_) return;
    BSP_LOG_WARN(MOD_BSP, "%s: %s = %d is no size, %d takes its place", path_.c_str(), key.c_str(),
                 *size, usual);
    *size = usual;
  }

  void ReadPath(const char* section, const std::string& key, std::string* path) const {
    const std::string usual = *path;
    Read(section, key, path);
    if (!path->empty() || !is_guarded_) return;
    BSP_LOG_WARN(MOD_BSP, "%s: %s is empty, %s takes its place", path_.c_str(), key.c_str(),
                 usual.c_str());
    *path = usual;
  }

  void ReadModule(const std::string& key, std::string* name) const {
    Read("watchdog", key, name);
    if (name->size() <= kMostModuleChars || !is_guarded_) return;
    BSP_LOG_WARN(MOD_BSP, "%s: %s = %s has more than %zu characters, its module cannot find it",
                 path_.c_str(), key.c_str(), name->c_str(), kMostModuleChars);
  }

  // What no reader asks for is mistyped, or meant for another program.
  void TellUnknown() const {
    for (const auto& section : file_) {
      const auto keys = KeysOf(section.first);
      for (const auto& field : section.second) {
        if (keys.count(field.first) != 0) continue;
        BSP_LOG_WARN(MOD_BSP, "%s: l.%d: [%s] %s is unknown and has no effect", path_.c_str(),
                     field.second.line(), section.first.c_str(), field.first.c_str());
      }
    }
  }

 private:
  static std::set<std::string> KeysOf(const std::string& section) {
    if (section == "log_size") return {"log_bus_size", "log_ctrl_size", "log_sys_size"};
    if (section == "record") {
      return {"log_db_file", "log_rec_mode", "log_rec_file", "log_rec_host", "log_rec_port"};
    }
    std::set<std::string> keys;
    for (int i = 0; section == "watchdog" && i < kMaxModules; ++i) {
      keys.insert("module_" + std::to_string(i));
    }
    return keys;
  }

  // Letters without the sign of hexadecimal.
  static bool IsOddNumber(const std::string& text) {
    return text.find_first_of("abcdefABCDEF") != std::string::npos &&
           text.find_first_of("xX") == std::string::npos;
  }

  // The field, null when the file has none.
  const ini::IniField* Find(const char* section, const std::string& key) const {
    const auto fields = file_.find(section);
    if (fields == file_.end()) return nullptr;
    const auto field = fields->second.find(key);
    return field == fields->second.end() ? nullptr : &field->second;
  }

  const std::string path_;
  const bool is_guarded_;
  std::string* error_;
  ini::IniFile file_;
};

}  // namespace

void ReadLogSrvCfg(const std::string& path, bool is_guarded, LogSrvCfg* cfg, std::string* error) {
  const CfgReader reader(path, is_guarded, error);
  if (is_guarded) reader.TellUnknown();
  *cfg = LogSrvCfg();
  for (int i = 0; i < kMaxModules; ++i) {
    reader.ReadModule("module_" + std::to_string(i), &cfg->modules[i]);
  }
  reader.ReadSize("log_size", "log_bus_size", &cfg->log_bus_size);
  reader.ReadSize("log_size", "log_ctrl_size", &cfg->log_ctrl_size);
  reader.ReadSize("log_size", "log_sys_size", &cfg->log_sys_size);
  reader.ReadPath("record", "log_db_file", &cfg->log_db_file);
  reader.Read("record", "log_rec_mode", &cfg->rec.log_rec_mode);
  reader.Read("record", "log_rec_file", &cfg->rec.log_rec_file);
  reader.Read("record", "log_rec_host", &cfg->rec.log_rec_host);
  reader.Read("record", "log_rec_port", &cfg->rec.log_rec_port);
}

}  // namespace bsp
