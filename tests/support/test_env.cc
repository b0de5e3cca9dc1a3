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
std::string g_temp_root;

std::string Refused(const char* step) { return std::string(step) + ": " + strerror(errno); }

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

// Empty on success, else the step that the kernel refused. Before any thread exists.
std::string EnterPrivateWorld() {
  const uid_t uid = geteuid();
  const gid_t gid = getegid();
  const int spaces = CLONE_NEWIPC | CLONE_NEWNET | CLONE_NEWNS;
  if (unshare(uid == 0 ? spaces : spaces | CLONE_NEWUSER) != 0) return Refused("unshare");
  if (uid != 0) {
    // Root inside, ourselves outside. Groups must be given up before the group map is written.
    // Without it the mounts are refused.
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << uid << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << gid << " 1";
  }
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return Refused("mounts");
  if (mount("tmpfs", "/mnt", "tmpfs", 0, nullptr) != 0) return Refused("tmpfs on /mnt");
  // Best effort: no closed connection lingers on an address that the next test wants.
  std::ofstream("/proc/sys/net/ipv4/tcp_max_tw_buckets") << "0";
  return BringLoopbackUp() ? std::string() : Refused("loopback");
}

}  // namespace

const std::string& IsolationFailure() { return g_failure; }

std::string MakeTempDir() {
  static int count = 0;
  if (g_temp_root.empty()) {
    char path[] = "/tmp/bsp-test-XXXXXX";
    if (mkdtemp(path) == nullptr) {
      perror("mkdtemp");
      abort();
    }
    g_temp_root = path;
  }
  const std::string path = g_temp_root + "/" + std::to_string(++count);
  std::filesystem::create_directory(path);
  return path;
}

}  // namespace test

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);  // a dead peer is an error code, as in every program of ours
  test::g_failure = test::EnterPrivateWorld();
  testing::InitGoogleTest(&argc, argv);
  const int result = RUN_ALL_TESTS();
  std::filesystem::remove_all(test::g_temp_root);
  return result;
}
