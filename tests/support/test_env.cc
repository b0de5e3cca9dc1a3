#include "tests/support/test_env.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace test {
namespace {

std::string g_failure;

// Removed by the process that made it, not by forked children.
struct TempRoot {
  std::string path;
  pid_t owner = 0;
  ~TempRoot() {
    std::error_code ignored;  // best effort: nothing depends on it
    if (owner == getpid()) std::filesystem::remove_all(path, ignored);
  }
};

std::string Refused(const char* step) { return std::string(step) + ": " + strerror(errno); }

bool WriteFile(const char* path, const std::string& text) {
  std::ofstream file(path);
  file << text;
  file.close();
  return !file.fail();
}

bool BringLoopbackUp() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd == -1) return false;
  struct ifreq request = {};
  strcpy(request.ifr_name, "lo");
  request.ifr_flags = IFF_UP | IFF_RUNNING;
  const bool up = ioctl(fd, SIOCSIFFLAGS, &request) == 0;
  close(fd);
  return up;
}

}  // namespace

std::string EnterPrivateWorld() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  int spaces = CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWNS;
  if (uid != 0) spaces |= CLONE_NEWUSER;
  if (unshare(spaces) != 0) return g_failure = Refused("unshare");
  if (uid != 0) {
    // Root inside, ourselves outside. Groups must be given up before the group map is written.
    if (!WriteFile("/proc/self/setgroups", "deny") ||
        !WriteFile("/proc/self/uid_map", "0 " + std::to_string(uid) + " 1") ||
        !WriteFile("/proc/self/gid_map", "0 " + std::to_string(gid) + " 1")) {
      return g_failure = Refused("user id map");
    }
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
    return g_failure = Refused("private mounts");
  }
  if (mount("tmpfs", "/mnt", "tmpfs", 0, nullptr) != 0) return g_failure = Refused("tmpfs on /mnt");
  if (!BringLoopbackUp()) return g_failure = Refused("loopback");
  return std::string();
}

const std::string& IsolationFailure() { return g_failure; }

std::string MakeTempDir() {
  static TempRoot root;
  static int count = 0;
  if (root.path.empty()) {
    char path[] = "/tmp/bsp-test-XXXXXX";
    if (mkdtemp(path) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    root.path = path;
    root.owner = getpid();
  }
  const std::string path = root.path + "/" + std::to_string(++count);
  std::filesystem::create_directory(path);
  return path;
}

}  // namespace test

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // a dead peer is an error code, as in every program of ours
  const std::string failure = test::EnterPrivateWorld();
  if (!failure.empty()) fprintf(stderr, "not isolated (%s)\n", failure.c_str());
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
