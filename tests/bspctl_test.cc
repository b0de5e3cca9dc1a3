// The operator's tool as its users meet it: real programs, exit codes, what stands on standard
// output and what does not.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "bsp/bsp.h"
#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

using Json = nlohmann::json;
using test::Child;

const std::string kBin = BSP_TEST_BIN_DIR;
const std::string kExamples = BSP_TEST_BUILD_DIR "/examples";

struct Result {
  int code;
  std::string out;  // standard output alone
  std::string err;
};

// Runs bspctl with the words of a shell line.
Result Ctl(const std::string& words) {
  static int count = 0;
  const std::string errors = "/mnt/stderr." + std::to_string(++count);
  Child child = Child::Run({"/bin/sh", "-c", kBin + "/bspctl " + words + " 2>" + errors});
  Result result;
  result.code = child.Wait();
  result.out = child.output();
  std::ifstream file(errors);
  result.err.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return result;
}

Child StartBroker() {
  Child broker = Child::Run({kBin + "/bsp-broker"});
  EXPECT_TRUE(broker.WaitForLine("bsp-broker ready on 127.0.0.1:7800")) << broker.output();
  return broker;
}

Child StartLogServer() {
  const std::string dir = "/mnt/log";
  mkdir(dir.c_str(), 0755);
  std::ofstream(dir + "/com_srv_app.ini") << "[record]\nlog_db_file = /mnt/log/log.db\n";
  Child server = Child::Run({kBin + "/bsp-logd", "--dir", dir});
  EXPECT_TRUE(server.WaitForLine("bsp-logd ready on")) << server.output();
  return server;
}

// Scripts tell what went wrong by the exit code alone; each kind of failure keeps its own, and no
// failure puts a word on standard output.
TEST(BspCtl, EachFailureHasItsExitCode) {
  NEED_PRIVATE_WORLD();
  const std::vector<std::pair<std::string, int>> without_servers = {
      {"", 2},
      {"rpc", 2},
      {"level m 9", 2},
      {"rpc call", 2},
      {"rpc call x 616 --hex --bus nowhere", 2},
      {"rpc call x --timeout -1", 2},
      {"rpc call x --bus no.such.host.invalid:7800", 1},
      {"rpc listen x --kind other", 2},
      {"shm remove nonsense", 2},
      {"prop set k ''", 2},
      {"rpc call x", 7},
      {"rpc send x", 7},
      {"status", 7},
      {"level m 3", 7},
      {"prop list", 1},
      {"prop get k", 1},
      {"event list", 1},
      {"shm remove status", 1},
  };
  for (const auto& [words, code] : without_servers) {
    const Result result = Ctl(words);
    EXPECT_EQ(result.code, code) << words << ": " << result.err;
    EXPECT_EQ(result.out, "") << words;
    EXPECT_NE(result.err, "") << words;
  }
  EXPECT_EQ(Ctl("--help").code, 0);
  EXPECT_EQ(Ctl("--version").code, 0);

  Child broker = StartBroker();
  Result result = Ctl("rpc call nobody");
  EXPECT_EQ(result.code, 3);
  EXPECT_EQ(result.err, "bspctl: nobody listens to nobody\n");
  EXPECT_EQ(Ctl("rpc check nobody").code, 3);
  EXPECT_EQ(Ctl("rpc send nobody hi").code, 3);
  Child sleeper = Child::Run(
      {kBin + "/bspctl", "rpc", "listen", "slow", "--kind", "request", "--exec", "sleep 300"});
  ASSERT_TRUE(sleeper.WaitForLine("listening"));
  result = Ctl("rpc call slow --timeout 50");
  EXPECT_EQ(result.code, 4);
  EXPECT_NE(result.err.find("no reply within 50 ms"), std::string::npos);
  sleeper.Signal(SIGTERM);  // its program still runs
  EXPECT_EQ(sleeper.Wait(), 0);
  Child failer = Child::Run(
      {kBin + "/bspctl", "rpc", "listen", "bad", "--kind", "request", "--exec", "exit 2"});
  ASSERT_TRUE(failer.WaitForLine("listening"));
  result = Ctl("rpc call bad");
  EXPECT_EQ(result.code, 5) << "a listener's -2 must not look like a missing command";
  EXPECT_EQ(result.err, "bspctl: bad answered with failure -2\n");
  EXPECT_EQ(Ctl("rpc listen bad --kind request").code, 5) << "the command is taken";
}

// A shell script as a module: bytes go in and out unchanged, by argument, by pipe and as hex.
TEST(BspCtl, ShellScriptsCallListenAndSend) {
  NEED_PRIVATE_WORLD();
  Child broker = StartBroker();
  Child upper = Child::Run({kBin + "/bspctl", "rpc", "listen", "upper", "--kind", "request",
                            "--json", "--exec", "tr a-z A-Z"});
  Child fixed = Child::Run(
      {kBin + "/bspctl", "rpc", "listen", "fixed", "--kind", "request", "--reply", "pong"});
  ASSERT_TRUE(fixed.WaitForLine("listening"));
  while (Ctl("rpc check upper").code != 0) {
  }
  EXPECT_EQ(Ctl("rpc check upper").out, "upper: request, power 0\n");
  EXPECT_EQ(Ctl("rpc call fixed").out, "pong\n");
  EXPECT_EQ(Ctl("rpc call upper abc").out, "ABC\n");
  EXPECT_EQ(Ctl("rpc call upper --hex 00616200").out, "00414200\n");
  EXPECT_EQ(Ctl("rpc call upper abc --json").out, "{\"text\":\"ABC\"}\n");
  EXPECT_EQ(Ctl("rpc call upper - </dev/null").out, "\n");
  // More than a pipe holds, in both directions at once.
  Child big =
      Child::Run({"/bin/sh", "-c",
                  "exec " + kBin + "/bspctl rpc listen big --kind request --exec cat >/dev/null"});
  ASSERT_TRUE(big.WaitForLine("listening"));
  std::ofstream("/mnt/big") << std::string(300000, 'x') << '\n';
  EXPECT_EQ(Ctl("rpc call big - < /mnt/big --timeout 20000 | wc -c").out, "300001\n");

  std::string line;
  ASSERT_TRUE(upper.ReadLine(&line));
  const Json frame = Json::parse(line);
  EXPECT_EQ(frame["command"], "upper");
  EXPECT_EQ(frame["kind"], "request");
  EXPECT_EQ(frame["text"], "abc");

  Child news = Child::Run({kBin + "/bspctl", "rpc", "listen", "news"});
  ASSERT_TRUE(news.WaitForLine("listening"));
  EXPECT_EQ(Ctl("rpc send news 'first one'").code, 0);
  EXPECT_EQ(Ctl("rpc send news second").code, 0);
  ASSERT_TRUE(news.ReadLine(&line));
  EXPECT_EQ(line, "first one");
  ASSERT_TRUE(news.ReadLine(&line));
  EXPECT_EQ(line, "second");
  news.Signal(SIGTERM);
  EXPECT_EQ(news.Wait(), 0);
  // A listener whose broker dies ends and says so.
  broker.Signal(SIGKILL);
  EXPECT_EQ(fixed.Wait(), 7) << fixed.output();
}

// Levels set from outside reach the running module, and the status shows what the block holds.
TEST(BspCtl, StatusAndLevels) {
  NEED_PRIVATE_WORLD();
  Child server = StartLogServer();
  Child module = Child::Fork([] {
    if (log_init_v2(6, "subject", 0) != 0) return 1;
    for (int i = 0; i < 3000; ++i) {
      BSP_LOG_DEBUG("MOD_SUBJECT", "now visible");
      usleep(10000);
    }
    return 0;
  });
  ASSERT_TRUE(module.WaitForLine("log register MOD_SUBJECT")) << module.output();
  EXPECT_EQ(Ctl("level subject debug --tag NO_SUCH").code, 1);
  EXPECT_EQ(Ctl("level nobody debug").code, 1);
  EXPECT_EQ(module.output().find("now visible"), std::string::npos);
  EXPECT_EQ(Ctl("level subject debug --tag MOD_SUBJECT").code, 0);
  EXPECT_TRUE(module.WaitForLine("now visible"));
  EXPECT_EQ(Ctl("level subject err").code, 0);

  const Result status = Ctl("status --json");
  EXPECT_EQ(status.code, 0) << status.err;
  const Json line = Json::parse(status.out);
  EXPECT_EQ(line["module"], "subject");
  EXPECT_EQ(line["running"], true);
  EXPECT_EQ(line["timeout_s"], 20);
  EXPECT_EQ(line["late"], false);
  EXPECT_EQ(line["level"], 3);
  EXPECT_EQ(line["tags"]["MOD_SUBJECT"], 3);
  EXPECT_NE(Ctl("status").out.find("subject"), std::string::npos);
  EXPECT_EQ(Ctl("status").out.find('\033'), std::string::npos) << "colour into a pipe";

  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait(), 0) << server.output();
  EXPECT_EQ(Ctl("status").code, 7) << "shown, but nobody counts the feeds";
}

// Values of any bytes come back as they went in; a key that would overwrite another is refused;
// segments in use are not removed by accident.
TEST(BspCtl, StoresAndSegments) {
  NEED_PRIVATE_WORLD();
  EXPECT_EQ(Ctl("prop set name 'two words'").code, 0);
  EXPECT_EQ(Ctl("prop set warm '-5 \u00b0C'").code, 0);
  EXPECT_EQ(Ctl("prop get warm").out, "-5 \u00b0C\n");
  EXPECT_EQ(Ctl("prop set bytes 00ff10 --hex").code, 0);
  EXPECT_EQ(Ctl("prop get name").out, "two words\n");
  EXPECT_EQ(Ctl("prop get name --size 3").out, "two\n");
  EXPECT_EQ(Ctl("prop get bytes").out, "0x00ff10\n");
  EXPECT_EQ(Ctl("prop get bytes --json").out, "{\"key\":\"bytes\",\"hex\":\"00ff10\"}\n");
  EXPECT_EQ(Ctl("prop set latin1 b043 --hex").code, 0);
  EXPECT_EQ(Ctl("prop get latin1").out, "0xb043\n") << "no UTF-8";
  EXPECT_EQ(Ctl("prop set escape c29b41 --hex").code, 0);
  EXPECT_EQ(Ctl("prop get escape").out, "0xc29b41\n") << "begins a terminal's control sequence";
  const Result refused = Ctl("prop set nam x");
  EXPECT_EQ(refused.code, 1);
  EXPECT_NE(refused.err.find("would overwrite name"), std::string::npos) << refused.err;

  Child writer = Child::Fork([] {
    if (event_cache_init_write(8, 64, 640) != 0) return 1;
    if (event_cache_write(41, "info", 4, "\x01\x02", 2) != 0) return 1;
    puts("written");
    fflush(stdout);
    pause();
    return 0;
  });
  ASSERT_TRUE(writer.WaitForLine("written")) << writer.output();
  EXPECT_EQ(Json::parse(Ctl("event list --json").out),
            (Json{{"key", 41}, {"info", {{"text", "info"}}}, {"data_bytes", 2}}));
  EXPECT_EQ(Json::parse(Ctl("event get 41 --json").out)["data"]["hex"], "0102");
  EXPECT_EQ(Ctl("event get 42").code, 1);

  const Result list = Ctl("shm list");
  for (const char* text : {"0x65000000", "0x65000011", "0x66000000", "properties", "semaphores"}) {
    EXPECT_NE(list.out.find(text), std::string::npos) << text << "\n" << list.out;
  }
  // Another user is told whose the segments are, instead of that there are none.
  const std::string as_other = "setpriv --reuid 65534 --clear-groups " + kBin + "/bspctl ";
  if (Child::Run({"/bin/sh", "-c", as_other + "--version"}).Wait() == 0) {  // else not ours to do
    Child other = Child::Run({"/bin/sh", "-c", as_other + "prop list; " + as_other + "shm list"});
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_NE(other.output().find("0x66000000 belongs to user"), std::string::npos);
    EXPECT_NE(other.output().find("events-info-hash"), std::string::npos) << other.output();
  }
  const Result in_use = Ctl("shm remove events-info-hash");
  EXPECT_EQ(in_use.code, 1);
  EXPECT_NE(in_use.err.find("--force"), std::string::npos) << in_use.err;
  EXPECT_EQ(Ctl("shm remove events-info-hash --force").code, 0);
  EXPECT_EQ(Ctl("shm remove 0x66000000").code, 0);
  EXPECT_EQ(Ctl("shm list --json").out.find("properties"), std::string::npos)
      << "the semaphores go with their segment";
}

}  // namespace
