// What a service manager hears from the host programs.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

using test::Child;

// The manager's end of the notify protocol.
class Manager {
 public:
  explicit Manager(const std::string& path) : fd_(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    struct sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(bind(fd_, reinterpret_cast<struct sockaddr*>(&address), sizeof address), 0);
  }
  ~Manager() { close(fd_); }

  // The next state line; empty when none comes within half a minute.
  std::string Next() {
    struct pollfd ready = {fd_, POLLIN, 0};
    if (poll(&ready, 1, 30000) != 1) return std::string();
    char state[256];
    const ssize_t count = recv(fd_, state, sizeof state, 0);
    return count > 0 ? std::string(state, static_cast<size_t>(count)) : std::string();
  }

 private:
  const int fd_;
};

// A manager that hears no READY restarts a good service for ever; one that hears WATCHDOG from
// anything but the loop never restarts a hung one. Standard output is a pipe that nobody reads any
// more, which must end no program.
TEST(HostPrograms, TellTheServiceManager) {
  NEED_PRIVATE_WORLD();
  for (const std::string name : {"bsp-broker", "bsp-logd"}) {
    SCOPED_TRACE(name);
    Manager manager("/mnt/" + name);
    Child program =
        Child::Run({"/bin/sh", "-c",
                    "mkdir -p /mnt/nand; cd /mnt; mkfifo $0.out; exec 3<>$0.out 4>$0.out 3<&-; "
                    "NOTIFY_SOCKET=/mnt/$0 WATCHDOG_USEC=600000 exec " BSP_TEST_BIN_DIR "/$0 >&4",
                    name});
    EXPECT_EQ(manager.Next(), "READY=1");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    EXPECT_EQ(manager.Next(), "WATCHDOG=1");
    program.Signal(SIGTERM);
    std::string state = manager.Next();
    while (state == "WATCHDOG=1") state = manager.Next();
    EXPECT_EQ(state, "STOPPING=1");
    EXPECT_EQ(program.Wait(), 0) << program.output();
  }
  // A socket that nobody reads, or that is no socket, must not hold a program up.
  for (const char* path : {"/nowhere/socket", "relative", "@", ""}) {
    Child program = Child::Run(
        {"/bin/sh", "-c", "NOTIFY_SOCKET=$0 exec " BSP_TEST_BIN_DIR "/bsp-broker", path});
    EXPECT_TRUE(program.WaitForLine("bsp-broker ready")) << path << program.output();
    program.Signal(SIGTERM);
    EXPECT_EQ(program.Wait(), 0);
  }
}

}  // namespace
