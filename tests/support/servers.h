// The two central services as their programs; up when a function returns.
#ifndef BSP_TESTS_SUPPORT_SERVERS_H_
#define BSP_TESTS_SUPPORT_SERVERS_H_

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/child.h"

namespace test {

// `argv` holds the words in front of the program's name. Without --stock the address is there at
// once; with it, connections that a broker before has closed may linger on it for a minute.
inline Child StartBroker(const std::vector<std::string>& options = {},
                         std::vector<std::string> argv = {}) {
  argv.insert(argv.end(), {BSP_TEST_BIN_DIR "/bsp-broker", "--log-level", "3"});
  argv.insert(argv.end(), options.begin(), options.end());
  const bool is_stock = std::find(argv.begin(), argv.end(), "--stock") != argv.end();
  const auto last = std::chrono::steady_clock::now() + std::chrono::seconds(is_stock ? 90 : 0);
  Child broker = Child::Run(argv);
  while (!broker.WaitForLine("bsp-broker ready on 127.0.0.1:7800")) {
    if (std::chrono::steady_clock::now() >= last) {
      ADD_FAILURE() << broker.output();
      break;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    broker = Child::Run(argv);
  }
  return broker;
}

// With its database at /mnt/log/log.db.
inline Child StartLogServer() {
  mkdir("/mnt/log", 0755);
  std::ofstream("/mnt/log/com_srv_app.ini") << "[record]\nlog_db_file = /mnt/log/log.db\n";
  Child server = Child::Run({BSP_TEST_BIN_DIR "/bsp-logd", "--dir", "/mnt/log"});
  EXPECT_TRUE(server.WaitForLine("bsp-logd ready on 0.0.0.0:12122")) << server.output();
  return server;
}

}  // namespace test

#endif  // BSP_TESTS_SUPPORT_SERVERS_H_
