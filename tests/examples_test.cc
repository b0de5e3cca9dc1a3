// The examples do what their first lines say: a user's first program is copied from them.
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/support/child.h"
#include "tests/support/servers.h"
#include "tests/support/test_env.h"

namespace {

using test::Child;

const std::string kBin = BSP_TEST_BIN_DIR;
const std::string kExamples = BSP_TEST_BUILD_DIR "/examples/";

// Ends a module as an init system does, and expects an orderly end.
void End(Child* child) {
  child->Signal(SIGTERM);
  EXPECT_EQ(child->Wait(), 0) << child->output();
}

// Either language's caller gets an answer from either language's listener.
TEST(Examples, CallersAndListenersOfBothLanguages) {
  NEED_PRIVATE_WORLD();
  Child broker = test::StartBroker();
  for (const char* language : {"c", "cpp"}) {
    Child listener = Child::Run({kExamples + "listener_" + language, "7800"});
    ASSERT_TRUE(listener.WaitForLine("listening to greet")) << listener.output();
    for (const char* caller : {"caller_c", "caller_cpp"}) {
      Child call = Child::Run({kExamples + caller, "7800", "device"});
      EXPECT_TRUE(call.WaitForLine("hello device")) << call.output();
      EXPECT_EQ(call.Wait(), 0) << call.output();
    }
    End(&listener);
  }
  End(&broker);
}

// Those that need no servers: what they print tells that each step did its work.
TEST(Examples, SmallOnesPrintWhatTheyShow) {
  NEED_PRIVATE_WORLD();
  const std::vector<std::vector<std::string>> expected = {
      {"errors", "code -2: no identity, cannot read /nowhere/serial.", "errors.cc:", "errors.cc:"},
      {"utilities", "slept for 20 ms", "speed=40: 40", "level=high: -1"},
      {"signals", "panel shows 21 C", "nobody looked at 22"},
      {"semaphore", "timed out, then ready"},
      {"buffer", "record lamp", "record door"},
      {"event_thread", "message 1", "message 2", "message 3"},
      {"echo", "echo: ping"},
      {"shared_map", "door 7 is open since 12:30"},
      {"database", "fault 7: it's hot"},
  };
  for (const auto& words : expected) {
    Child child = Child::Run({"/bin/sh", "-c", "cd /mnt; exec " + kExamples + words[0]});
    for (size_t i = 1; i < words.size(); ++i) {
      EXPECT_TRUE(child.WaitForLine(words[i])) << words[0] << ": " << child.output();
    }
    EXPECT_EQ(child.Wait(), 0) << words[0];
  }
}

// The lines of a text without their indentation.
std::string Flat(std::istream& text, const std::string& end = std::string()) {
  std::string flat;
  for (std::string line; std::getline(text, line) && (end.empty() || line != end);) {
    flat += line.substr(std::min(line.find_first_not_of(' '), line.size())) + "\n";
  }
  return flat;
}

// A document that shows what no longer compiles: every C and C++ block stands in an example.
TEST(Examples, DocumentsShowWhatIsBuilt) {
  const std::string root = BSP_TEST_SOURCE_DIR;
  std::string sources;
  for (const auto& file : std::filesystem::directory_iterator(root + "/examples")) {
    std::ifstream source(file.path());
    sources += Flat(source);
  }
  size_t blocks = 0;
  for (const char* name : {"/README.md", "/docs/guide.md"}) {
    std::ifstream document(root + name);
    for (std::string line; std::getline(document, line);) {
      if (line != "```c" && line != "```cpp") continue;
      const std::string block = Flat(document, "```");
      EXPECT_NE(sources.find(block), std::string::npos) << name << " shows\n" << block;
      ++blocks;
    }
  }
  EXPECT_GT(blocks, 25u);
}

// The demo's device: samples flow, a decision reaches the fan, and what it left in shared memory is
// readable by another process; logs reach the server.
TEST(Examples, TheDemoDeviceWorks) {
  NEED_PRIVATE_WORLD();
  Child server = test::StartLogServer();
  Child broker = test::StartBroker();
  Child actuator = Child::Run({kExamples + "actuator", "7800"});
  Child governor = Child::Run({kExamples + "governor", "7800"});
  while (Child::Run({kBin + "/bspctl", "rpc", "check", "device.sample"}).Wait() != 0) {
  }
  Child sampler = Child::Run({kExamples + "sampler", "7800", "-p", "7"});
  EXPECT_TRUE(sampler.WaitForLine("sample n=1 cpu=")) << sampler.output();
  EXPECT_TRUE(governor.WaitForLine("answer: ok speed=")) << governor.output();
  EXPECT_TRUE(actuator.WaitForLine("fan runs at")) << actuator.output();

  EXPECT_EQ(Child::Run({kExamples + "property_reader", "fan.speed"}).Wait(), 0);
  EXPECT_TRUE(Child::Run({kExamples + "event_cache_reader", "1"}).WaitForLine("n=1 cpu="));
  Child user = Child::Run({kExamples + "log_user", "-p", "7"});
  EXPECT_TRUE(user.WaitForLine("shown with -p 7 only")) << user.output();
  EXPECT_EQ(user.Wait(), 0);
  for (Child* child : {&sampler, &governor, &actuator, &broker, &server}) End(child);
  Child rows = Child::Run({"sqlite3", "/mnt/log/log.db",
                           "select log from tbl_ctrl_log union select log from tbl_bus_log"});
  EXPECT_EQ(rows.Wait(), 0);
  for (const char* text : {"sampler ends after", "governor starts", "a record of trace 42"}) {
    EXPECT_NE(rows.output().find(text), std::string::npos) << text << "\n" << rows.output();
  }
}

}  // namespace
