// The examples do what their first lines say: a user's first program is copied from them.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <csignal>
#include <fstream>
#include <string>

#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

using test::Child;

const std::string kBin = BSP_TEST_BIN_DIR;
const std::string kExamples = BSP_TEST_BUILD_DIR "/examples/";

Child StartBroker() {
  Child broker = Child::Run({kBin + "/bsp-broker"});
  EXPECT_TRUE(broker.WaitForLine("bsp-broker ready on")) << broker.output();
  return broker;
}

Child StartLogServer() {
  mkdir("/mnt/log", 0755);
  std::ofstream("/mnt/log/com_srv_app.ini") << "[record]\nlog_db_file = /mnt/log/log.db\n";
  Child server = Child::Run({kBin + "/bsp-logd", "--dir", "/mnt/log"});
  EXPECT_TRUE(server.WaitForLine("bsp-logd ready on")) << server.output();
  return server;
}

// Ends a module as an init system does, and expects an orderly end.
void End(Child* child) {
  child->Signal(SIGTERM);
  EXPECT_EQ(child->Wait(), 0) << child->output();
}

// Either language's caller gets an answer from either language's listener.
TEST(Examples, CallersAndListenersOfBothLanguages) {
  NEED_PRIVATE_WORLD();
  Child broker = StartBroker();
  for (const char* listener_name : {"listener_c", "listener_cpp"}) {
    Child listener = Child::Run({kExamples + listener_name, "7800"});
    ASSERT_TRUE(listener.WaitForLine("listening to greet")) << listener.output();
    for (const char* caller_name : {"caller_c", "caller_cpp"}) {
      Child caller = Child::Run({kExamples + caller_name, "7800", "device"});
      EXPECT_TRUE(caller.WaitForLine("hello device")) << listener_name << caller_name;
      EXPECT_EQ(caller.Wait(), 0) << caller.output();
    }
    End(&listener);
  }
  End(&broker);
}

TEST(Examples, EventThreadRunsInOrderOfDueTimes) {
  Child child = Child::Run({kExamples + "event_thread"});
  for (const char* expected : {"message 1", "message 2", "message 3"}) {
    ASSERT_TRUE(child.WaitForLine(expected)) << child.output();
  }
  EXPECT_EQ(child.Wait(), 0);
}

// The demo's device: samples flow, a decision reaches the fan, and what it left in shared memory is
// readable by another process; logs reach the server.
TEST(Examples, TheDemoDeviceWorks) {
  NEED_PRIVATE_WORLD();
  Child server = StartLogServer();
  Child broker = StartBroker();
  Child actuator = Child::Run({kExamples + "actuator", "7800"});
  Child governor = Child::Run({kExamples + "governor", "7800"});
  while (Child::Run({kBin + "/bspctl", "rpc", "check", "device.sample"}).Wait() != 0) {
  }
  Child sampler = Child::Run({kExamples + "sampler", "7800", "-p", "7"});
  EXPECT_TRUE(sampler.WaitForLine("sample n=1 cpu=")) << sampler.output();
  EXPECT_TRUE(governor.WaitForLine("answer: ok speed=")) << governor.output();
  EXPECT_NE(actuator.WaitForLine("fan runs at"), false) << actuator.output();

  Child reader = Child::Run({kExamples + "property_reader", "fan.speed"});
  EXPECT_EQ(reader.Wait(), 0) << reader.output();
  Child events = Child::Run({kBin + "/bspctl", "event", "list"});
  EXPECT_TRUE(events.WaitForLine("1 ")) << events.output();
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
