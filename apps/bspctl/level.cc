// bspctl level: changes log levels in the status block; the running module sees them at its next
// log call.
#include <memory>

#include "apps/bspctl/ctl.h"
#include "apps/bspctl/status_block.h"
#include "apps/bspctl/sysv.h"
#include "bsp/log/status_block.h"

namespace ctl {
namespace {

struct LevelRequest {
  std::string module;
  std::string level;
  std::string tag;  // empty: the module and all its tags
};

bool SetTag(bsp::ModSta* record, const std::string& tag, int32_t level) {
  for (bsp::LogModSta& slot : record->logs) {
    if (tag != bsp::NameOf(slot.log_name)) continue;
    bsp::StoreWord(slot.log_level, level);
    return true;
  }
  return false;
}

std::string Names(const std::vector<ModuleView>& modules) {
  std::string names;
  for (const ModuleView& module : modules) {
    names += (names.empty() ? "" : ", ") + Readable(module.name);
  }
  return names.empty() ? "none" : names;
}

std::string TagNames(const ModuleView& module) {
  std::string names;
  for (const TagView& tag : module.tags) names += (names.empty() ? "" : ", ") + Readable(tag.name);
  return names.empty() ? "none" : names;
}

int SetLevel(const LevelRequest& request, bool as_json) {
  const auto level = ParseLevel(request.level);
  if (!level) {
    return Fail(kUsage, "level %s: give 0 to 7, or a name from emerg to debug",
                request.level.c_str());
  }
  const auto modules = ReadModules();
  if (!modules) {
    return FailToAttach(kStatusKey, kNotRunning, "no status block: is bsp-logd running?");
  }

  bsp::StatusBlockHandle block;
  if (!block.InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 0)) {
    return FailToAttach(kStatusKey, kNotRunning, "the status block was removed this moment");
  }
  for (const ModuleView& module : *modules) {
    if (module.name != request.module) continue;
    bsp::ModSta* record = &block.ptr()->mods[module.index];
    if (request.tag.empty()) {
      bsp::SetModuleLevel(record, *level);
    } else if (!SetTag(record, request.tag, *level)) {
      return Fail(kFailed, "module %s has no tag %s; it has: %s", request.module.c_str(),
                  request.tag.c_str(), TagNames(module).c_str());
    }
    if (as_json) {
      Json done = {{"module", request.module}, {"level", *level}};
      if (!request.tag.empty()) done["tag"] = request.tag;
      PrintJson(done);
    }
    return kDone;
  }
  return Fail(kFailed, "no module %s; there are: %s", request.module.c_str(),
              Names(*modules).c_str());
}

}  // namespace

void AddLevel(CLI::App* app, Context* context) {
  auto request = std::make_shared<LevelRequest>();
  CLI::App* verb = AddVerb(app, context, "level", "set the log level of a module or of one tag",
                           [=] { return SetLevel(*request, context->json); });
  verb->add_option("module", request->module, "name of the module")->required();
  verb->add_option("level", request->level,
                   "0 to 7, or emerg alert crit error warn notice info debug")
      ->required();
  verb->add_option("-t,--tag", request->tag, "this log tag only");
}

}  // namespace ctl
