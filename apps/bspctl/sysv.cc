#include "apps/bspctl/sysv.h"

#include <pwd.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdio>
#include <fstream>

#include "bsp/util/string_helper.h"

namespace ctl {
namespace {

// Columns of /proc/sysvipc/shm: key shmid perms size cpid lpid nattch uid ...
bool ParseSegment(const std::string& line, int* key, SysvObject* found) {
  return sscanf(line.c_str(), "%d %d %o %" SCNd64 " %*d %*d %" SCNd64 " %u", key, &found->id,
                &found->mode, &found->size, &found->attached, &found->uid) == 6;
}

// Columns of /proc/sysvipc/sem: key semid perms nsems uid ...
bool ParseSemaphores(const std::string& line, int* key, SysvObject* found) {
  return sscanf(line.c_str(), "%d %d %o %" SCNd64 " %u", key, &found->id, &found->mode,
                &found->size, &found->uid) == 5;
}

std::optional<SysvObject> Find(const char* path, key_t key,
                               bool (*parse)(const std::string&, int*, SysvObject*)) {
  std::ifstream list(path);
  std::string line;
  while (std::getline(list, line)) {
    int found_key = 0;
    SysvObject found = {};
    if (parse(line, &found_key, &found) && found_key == key) return found;
  }
  return std::nullopt;
}

}  // namespace

std::optional<SysvObject> FindSegment(key_t key) {
  return Find("/proc/sysvipc/shm", key, ParseSegment);
}

std::optional<SysvObject> FindSemaphores(key_t key) {
  return Find("/proc/sysvipc/sem", key, ParseSemaphores);
}

std::string KeyName(key_t key) {
  return bsp::StringHelper::Format("0x%08x", static_cast<unsigned>(key));
}

std::string UserName(uid_t uid) {
  const struct passwd* user = getpwuid(uid);
  return user != nullptr ? user->pw_name : std::to_string(uid);
}

int FailToAttach(key_t key, ExitCode code, const char* missing) {
  const auto segment = FindSegment(key);
  if (!segment) return Fail(code, "%s", missing);
  const std::string name = KeyName(key);
  if (geteuid() != 0 && geteuid() != segment->uid) {
    return Fail(kFailed, "segment %s belongs to user %s: run bspctl as that user, or as root",
                name.c_str(), UserName(segment->uid).c_str());
  }
  return Fail(kFailed, "segment %s of %" PRId64 " bytes is damaged, or of another version: %s",
              name.c_str(), segment->size, "stop the modules and give bspctl shm remove");
}

}  // namespace ctl
