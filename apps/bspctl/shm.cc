// bspctl shm: the runtime's segments and semaphore sets in the kernel's tables.
#include <grp.h>
#include <pwd.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "apps/bspctl/ctl.h"
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

std::string KeyName(key_t key) {
  return bsp::StringHelper::Format("0x%08x", static_cast<unsigned>(key));
}

std::string UserName(uid_t uid) {
  const struct passwd* user = getpwuid(uid);
  return user != nullptr ? user->pw_name : std::to_string(uid);
}

std::string ModeText(unsigned mode) { return bsp::StringHelper::Format("%04o", mode & 0777u); }

std::optional<struct shmid_ds> StatSegment(key_t key, int* id) {
  *id = shmget(key, 0, 0);
  struct shmid_ds stat = {};
  if (*id == -1 || shmctl(*id, IPC_STAT, &stat) == -1) return std::nullopt;
  return stat;
}

// glibc leaves this union to its callers.
union SemArgument {
  int value;
  struct semid_ds* stat;
};

std::optional<struct semid_ds> StatSemaphores(key_t key, int* id) {
  *id = semget(key, 0, 0);
  struct semid_ds stat = {};
  SemArgument argument;
  argument.stat = &stat;
  if (*id == -1 || semctl(*id, 0, IPC_STAT, argument) == -1) return std::nullopt;
  return stat;
}

struct Row {
  const char* kind;
  const Known* known;
  std::string size;
  int64_t bytes;  // -1 for a semaphore set
  std::string owner;
  std::string mode;
  int64_t attached;  // processes; for a semaphore set 1 while its lock is held
};

std::vector<Row> ReadRows() {
  std::vector<Row> rows;
  for (const Known& known : kKnown) {
    int id = -1;
    if (const auto segment = StatSegment(known.key, &id)) {
      rows.push_back({"segment", &known, std::to_string(segment->shm_segsz),
                      static_cast<int64_t>(segment->shm_segsz), UserName(segment->shm_perm.uid),
                      ModeText(segment->shm_perm.mode), static_cast<int64_t>(segment->shm_nattch)});
    }
    if (const auto set = StatSemaphores(known.key, &id)) {
      const int held = semctl(id, 0, GETVAL);
      rows.push_back({"semaphores", &known, std::to_string(set->sem_nsems), -1,
                      UserName(set->sem_perm.uid), ModeText(set->sem_perm.mode),
                      held == 1 ? 1 : 0});
    }
  }
  return rows;
}

int List(bool as_json) {
  const std::vector<Row> rows = ReadRows();
  if (as_json) {
    for (const Row& row : rows) {
      Json line = {
          {"key", KeyName(row.known->key)}, {"name", row.known->alias}, {"kind", row.kind}};
      if (row.bytes >= 0) {
        line["bytes"] = row.bytes;
        line["attached"] = row.attached;
      } else {
        line["lock_held"] = row.attached != 0;
      }
      line["owner"] = row.owner;
      line["mode"] = row.mode;
      PrintLine(line.dump());
    }
    return kDone;
  }
  Table table({"KEY", "NAME", "KIND", "SIZE", "OWNER", "MODE", "IN USE", "CONTENT"});
  for (const Row& row : rows) {
    const bool is_segment = row.bytes >= 0;
    table.AddRow({KeyName(row.known->key), row.known->alias, row.kind,
                  is_segment ? row.size + " B" : row.size + " sems", row.owner, row.mode,
                  is_segment ? std::to_string(row.attached) + " attached"
                             : (row.attached != 0 ? "locked" : "free"),
                  row.known->what});
  }
  table.Print();
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
  int segment_id = -1;
  int set_id = -1;
  const auto segment = StatSegment(known->key, &segment_id);
  const auto set = StatSemaphores(known->key, &set_id);
  if (!segment && !set)
    return Fail(kFailed, "%s (%s) does not exist", known->alias, KeyName(known->key).c_str());
  if (segment && segment->shm_nattch > 0 && !is_forced) {
    return Fail(
        kFailed,
        "%s (%s) is attached by %lu processes, which would go on with a segment that nobody "
        "else sees: stop them, or give --force",
        known->alias, KeyName(known->key).c_str(), static_cast<unsigned long>(segment->shm_nattch));
  }
  if (segment && shmctl(segment_id, IPC_RMID, nullptr) == -1) {
    return Fail(kFailed, "cannot remove segment %s: %s", known->alias, strerror(errno));
  }
  if (set && semctl(set_id, 0, IPC_RMID) == -1) {
    return Fail(kFailed, "cannot remove the semaphores of %s: %s", known->alias, strerror(errno));
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
