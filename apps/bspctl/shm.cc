// bspctl shm: the runtime's segments and semaphore sets in the kernel's tables.
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "apps/bspctl/ctl.h"
#include "apps/bspctl/sysv.h"
#include "bsp/util/string_helper.h"

namespace ctl {
namespace {

struct Known {
  key_t key;
  const char* alias;
  const char* what;
};

// Every segment that the runtime makes, by its fixed key.
constexpr Known kKnown[] = {
    {0x64000000, "status", "modules, feeds and log levels"},
    {0x65000000, "events-info-hash", "event cache, info records: keys"},
    {0x65000001, "events-info-link", "event cache, info records: values"},
    {0x65000010, "events-data-hash", "event cache, data records: keys"},
    {0x65000011, "events-data-link", "event cache, data records: values"},
    {0x66000000, "properties", "property table"},
};

std::string ModeText(unsigned mode) { return bsp::StringHelper::Format("%04o", mode & 0777u); }

struct Row {
  const Known* known;
  bool is_segment;  // else a semaphore set
  SysvObject object;
};

std::vector<Row> ReadRows() {
  std::vector<Row> rows;
  for (const Known& known : kKnown) {
    if (const auto segment = FindSegment(known.key)) rows.push_back({&known, true, *segment});
    if (const auto set = FindSemaphores(known.key)) rows.push_back({&known, false, *set});
  }
  return rows;
}

// 1 while somebody holds the lock of a set, 0 while it is free, -1 when we may not look.
int LockState(const Row& row) { return semctl(row.object.id, 0, GETVAL); }

Json ToJson(const Row& row) {
  Json line = {{"key", KeyName(row.known->key)},
               {"name", row.known->alias},
               {"kind", row.is_segment ? "segment" : "semaphores"}};
  if (row.is_segment) {
    line["bytes"] = row.object.size;
    line["attached"] = row.object.attached;
  } else {
    const int state = LockState(row);
    line["semaphores"] = row.object.size;
    line["lock_held"] = state == -1 ? Json() : Json(state != 0);
  }
  line["owner"] = UserName(row.object.uid);
  line["mode"] = ModeText(row.object.mode);
  return line;
}

std::string InUse(const Row& row) {
  if (row.is_segment) return std::to_string(row.object.attached) + " attached";
  const int state = LockState(row);
  if (state == -1) return "unknown";
  return state == 0 ? "free" : "locked";
}

int List(bool as_json) {
  Table table({"KEY", "NAME", "KIND", "SIZE", "OWNER", "MODE", "IN USE", "CONTENT"});
  for (const Row& row : ReadRows()) {
    if (as_json) PrintJson(ToJson(row));
    table.AddRow(
        {KeyName(row.known->key), row.known->alias, row.is_segment ? "segment" : "semaphores",
         std::to_string(row.object.size) + (row.is_segment ? " B" : " sems"),
         UserName(row.object.uid), ModeText(row.object.mode), InUse(row), row.known->what});
  }
  if (!as_json) table.Print();
  return kDone;
}

const Known* Find(const std::string& name) {
  for (const Known& known : kKnown) {
    if (name == known.alias || name == KeyName(known.key)) return &known;
  }
  return nullptr;
}

int Remove(const std::string& name, bool is_forced) {
  const Known* known = Find(name);
  if (known == nullptr) {
    return Fail(kUsage, "no segment %s: give a KEY or NAME as bspctl shm list prints them",
                name.c_str());
  }
  const char* alias = known->alias;
  const std::string key = KeyName(known->key);
  const auto segment = FindSegment(known->key);
  const auto set = FindSemaphores(known->key);
  if (!segment && !set) return Fail(kFailed, "%s (%s) does not exist", alias, key.c_str());
  if (segment && segment->attached > 0 && !is_forced) {
    return Fail(kFailed,
                "%s (%s) is attached by %" PRId64
                " process(es), which would go on with a segment that "
                "nobody else sees: stop them, or give --force",
                alias, key.c_str(), segment->attached);
  }
  if (segment && shmctl(segment->id, IPC_RMID, nullptr) == -1) {
    return Fail(kFailed, "cannot remove segment %s of user %s: %s", alias,
                UserName(segment->uid).c_str(), strerror(errno));
  }
  if (set && semctl(set->id, 0, IPC_RMID) == -1) {
    return Fail(kFailed, "cannot remove the semaphores of %s, of user %s: %s", alias,
                UserName(set->uid).c_str(), strerror(errno));
  }
  return kDone;
}

}  // namespace

void AddShm(CLI::App* app, Context* context) {
  CLI::App* noun = app->add_subcommand("shm", "the runtime's shared-memory segments");
  noun->require_subcommand(1);
  AddVerb(noun, context, "list", "show segments and semaphore sets",
          [=] { return List(context->json); });

  auto name = std::make_shared<std::string>();
  auto is_forced = std::make_shared<bool>(false);
  CLI::App* remove = AddVerb(noun, context, "remove", "remove a segment and its semaphore set",
                             [=] { return Remove(*name, *is_forced); });
  remove->add_option("name", *name, "KEY or NAME as shown by shm list")->required();
  remove->add_flag("--force", *is_forced, "also while processes are attached");
}

}  // namespace ctl
