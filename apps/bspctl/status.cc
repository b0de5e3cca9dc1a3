// bspctl status: the modules of the status block.
#include <csignal>
#include <ctime>
#include <memory>

#include "apps/bspctl/ctl.h"
#include "apps/bspctl/status_block.h"
#include "apps/bspctl/sysv.h"

namespace ctl {
namespace {

constexpr const char* kHome = "\033[H\033[2J";

Json ToJson(const ModuleView& module) {
  Json tags = Json::object();
  for (const TagView& tag : module.tags) tags[Readable(tag.name)] = tag.level;
  Json json = {{"module", Readable(module.name)},
               {"running", module.is_running},
               {"age_s", nullptr},
               {"timeout_s", module.timeout_s},
               {"late", module.is_late},
               {"level", module.level},
               {"tags", tags}};
  if (module.age_s) json["age_s"] = *module.age_s;
  if (module.is_dead) json["dead"] = true;
  return json;
}

std::string RunningText(const ModuleView& module) {
  if (module.is_dead) return Paint("dead", Colour::kRed);
  return module.is_running ? "yes" : "no";
}

void PrintTable(const std::vector<ModuleView>& modules) {
  Table table({"MODULE", "RUNNING", "LAST FEED", "TIMEOUT", "STATE", "LEVEL", "TAGS"});
  for (const ModuleView& module : modules) {
    std::string tags;
    for (const TagView& tag : module.tags) {
      tags += (tags.empty() ? "" : ", ") + Readable(tag.name) + "=" + std::to_string(tag.level);
    }
    table.AddRow({Readable(module.name), RunningText(module),
                  module.age_s ? std::to_string(*module.age_s) + " s ago" : "unknown",
                  std::to_string(module.timeout_s) + " s",
                  module.is_late ? Paint("LATE", Colour::kRed) : Paint("ok", Colour::kGreen),
                  LevelText(module.level), tags});
  }
  table.Print();
}

int ShowOnce(bool as_json) {
  const auto modules = ReadModules();
  if (!modules) {
    return FailToAttach(kStatusKey, kNotRunning, "no status block: is bsp-logd running?");
  }
  if (as_json) {
    for (const ModuleView& module : *modules) PrintJson(ToJson(module));
  } else if (!modules->empty()) {
    PrintTable(*modules);
  }
  if (!IsLogServerRunning()) {
    return Fail(kNotRunning, "bsp-logd is not running: nothing counts the feeds shown here");
  }
  if (!modules->empty()) return kDone;
  return Fail(kFailed, "nothing is watched: no module has registered");
}

// Once a second until SIGINT or SIGTERM, which are awaited rather than caught.
int Watch(bool as_json) {
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGINT);
  sigaddset(&ends, SIGTERM);
  sigprocmask(SIG_BLOCK, &ends, nullptr);
  const struct timespec second = {1, 0};
  do {
    if (!as_json && IsTerminal()) printf("%s", kHome);
    const int code = ShowOnce(as_json);
    if (ferror(stdout) != 0) return code;  // the reader is gone
  } while (sigtimedwait(&ends, nullptr, &second) == -1);
  return kDone;
}

}  // namespace

void AddStatus(CLI::App* app, Context* context) {
  auto watch = std::make_shared<bool>(false);
  CLI::App* verb = AddVerb(app, context, "status", "show the modules, their feeds and log levels",
                           [=] { return *watch ? Watch(context->json) : ShowOnce(context->json); });
  verb->add_flag("-w,--watch", *watch, "refresh once a second until interrupted");
}

}  // namespace ctl
