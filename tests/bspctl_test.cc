// The operator's tool as its users meet it: real programs, exit codes, what stands on standard
// output and what does not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>
#include <string>
#include <utility>
#include <vector>

#include "bsp/log/log.h"
#include "bsp/log/status_block.h"
#include "tests/support/child.h"
#include "tests/support/servers.h"
#include "tests/support/test_env.h"

namespace {

using Json = nlohmann::json;
using test::Child;

const std::string kCtl = BSP_TEST_BIN_DIR "/bspctl ";

struct Result {
  int code;
  std::string out;  // standard output alone
  std::string err;
};

// Runs bspctl with the words of a shell line.
Result Ctl(const std::string& words) {
  Child child = Child::Run({"/bin/sh", "-c", kCtl + words + " 2>/mnt/stderr"});
  Result result;
  result.code = child.Wait();
  result.out = child.output();
  std::ifstream file("/mnt/stderr");
  result.err.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return result;
}

// A command that succeeds, and all that it prints.
void Prints(const std::string& words, const std::string& out) {
  const Result result = Ctl(words);
  EXPECT_EQ(result.code, 0) << words << ": " << result.err;
  EXPECT_EQ(result.out, out) << words;
}

// A command that fails, with nothing on standard output and a text on standard error.
void Fails(const std::string& words, int code, const std::string& text) {
  const Result result = Ctl(words);
  EXPECT_EQ(result.code, code) << words << ": " << result.err;
  EXPECT_EQ(result.out, "") << words;
  EXPECT_NE(result.err.find(text), std::string::npos) << words << ": " << result.err;
}

Child Listen(const std::string& words) {
  Child listener = Child::Run({"/bin/sh", "-c", "exec " + kCtl + "rpc listen " + words});
  EXPECT_TRUE(listener.WaitForLine("listening to")) << listener.output();
  return listener;
}

// Scripts tell what went wrong by the exit code alone, people by the text; each kind of failure
// keeps its own.
TEST(BspCtl, EachFailureHasItsExitCode) {
  NEED_PRIVATE_WORLD();
  for (const char* words : {"", "rpc", "rpc call", "rpc call x --timeout -1", "prop set k ''",
                            "rpc listen x --kind other", "rpc call x 616 --hex", "level m 9",
                            "rpc call x --bus nowhere", "shm remove nonsense"}) {
    Fails(words, 2, "bspctl: ");
  }
  Fails("nonsense", 2, "not nonsense");
  for (const char* words :
       {"rpc call x", "rpc send x", "rpc check x", "--bus 127.0.0.1:9 rpc call x"}) {
    Fails(words, 7, "no broker on 127.0.0.1:");
  }
  Fails("status", 7, "is bsp-logd running?");
  Fails("level m 3", 7, "is bsp-logd running?");
  Fails("prop list", 1, "no property table yet");
  Fails("prop get k", 1, "no property table yet");
  Fails("event list", 1, "its writer has not run yet");
  Fails("shm remove status", 1, "does not exist");
  Fails("rpc call x --bus no.such.host.invalid:7800", 1, "unknown host");
  EXPECT_EQ(Ctl("--help").code + Ctl("--version").code, 0);

  Child broker = test::StartBroker();
  for (const char* words : {"rpc call nobody", "rpc check nobody", "rpc send nobody hi"}) {
    Fails(words, 3, "bspctl: nobody listens to nobody\n");
  }
  Child sleeper = Listen("slow --kind request --exec 'sleep 300'");
  Fails("rpc call slow --timeout 50", 4, "no reply within 50 ms");
  sleeper.Signal(SIGTERM);  // its program still runs
  EXPECT_EQ(sleeper.Wait(), 0);
  // A listener's -2 must not look like a missing command.
  Child failer = Listen("bad --kind request --exec 'exit 2'");
  Fails("rpc call bad", 5, "bspctl: bad answered with failure -2\n");
  Fails("rpc listen bad --kind request", 5, "another module answers it already");
  std::ofstream("/mnt/big") << std::string(5 << 20, 'x');
  Fails("rpc call bad - < /mnt/big", 1, "a frame above its limit?");
  // A listener whose broker dies ends and says so.
  broker.Signal(SIGKILL);
  EXPECT_EQ(failer.Wait(), 7) << failer.output();
}

// A shell script as a module: bytes go in and out unchanged, by argument, by pipe and as hex.
TEST(BspCtl, ShellScriptsCallListenAndSend) {
  NEED_PRIVATE_WORLD();
  Child broker = test::StartBroker();
  Child fixed = Listen("fixed --kind request --reply pong");
  Child upper = Listen("upper --kind request --exec 'tr a-z A-Z'");
  Prints("rpc check upper", "upper: request, power 0\n");
  Prints("rpc call fixed", "pong\n");
  Prints("rpc call upper abc", "ABC\n");
  Prints("rpc call upper -5", "-5\n");
  Prints("rpc call upper --hex 00616200", "00414200\n");
  Prints("rpc call upper abc --json", "{\"text\":\"ABC\"}\n");
  Prints("rpc call upper - </dev/null", "\n");
  // More than a pipe holds, in both directions at once.
  Child big = Listen("big --kind request --exec cat >/dev/null");
  std::ofstream("/mnt/some") << std::string(300000, 'x') << '\n';
  Prints("rpc call big - < /mnt/some --timeout 20000 | wc -c", "300001\n");

  Child frames = Child::Run({"/bin/sh", "-c", "exec " + kCtl + "rpc listen news --json"});
  while (Ctl("rpc check news").code != 0) {
  }
  Child news = Listen("news");
  EXPECT_EQ(Ctl("rpc send news first").code, 0);
  EXPECT_TRUE(frames.WaitForLine("first"));
  const Json frame = Json::parse(frames.output());
  EXPECT_EQ(frame["command"], "news");
  EXPECT_EQ(frame["kind"], "message");
  EXPECT_EQ(frame["text"], "first");
  EXPECT_EQ(Ctl("rpc send news 'second one'").code, 0);
  EXPECT_TRUE(news.WaitForLine("first"));
  EXPECT_TRUE(news.WaitForLine("second one"));
  news.Signal(SIGTERM);
  EXPECT_EQ(news.Wait(), 0);
}

// Levels set from outside reach the running module, and the status shows what the block holds.
TEST(BspCtl, StatusAndLevels) {
  NEED_PRIVATE_WORLD();
  Child server = test::StartLogServer();
  Child module = Child::Fork([] {
    if (log_init_v2(6, "subject", 0) != 0) return 1;
    for (int i = 0; i < 3000; ++i) {
      BSP_LOG_DEBUG("MOD_SUBJECT", "now visible");
      usleep(10000);
    }
    return 0;
  });
  ASSERT_TRUE(module.WaitForLine("log register MOD_SUBJECT")) << module.output();
  Fails("level subject debug --tag NO_SUCH", 1, "it has: subject, MOD_SUBJECT");
  Fails("level nobody debug", 1, "there are: subject");
  EXPECT_EQ(module.output().find("now visible"), std::string::npos);
  Prints("level subject debug --tag MOD_SUBJECT", "");
  EXPECT_TRUE(module.WaitForLine("now visible"));
  Prints("level subject err --json", "{\"module\":\"subject\",\"level\":3}\n");

  Json line = Json::parse(Ctl("status --json").out);
  EXPECT_GE(line["age_s"], 0);
  line.erase("age_s");
  EXPECT_EQ(line, Json::parse(R"({"module": "subject", "running": true, "timeout_s": 20,
      "late": false, "level": 3, "tags": {"subject": 3, "MOD_SUBJECT": 3}})"));
  const std::string table = Ctl("status").out;
  EXPECT_NE(table.find("3 error"), std::string::npos) << table;
  EXPECT_EQ(table.find('\033'), std::string::npos) << "colour into a pipe";

  // A module that was killed is dead, one that retires is gone, and then nothing is watched.
  module.Signal(SIGKILL);
  module.Wait();
  line = Json::parse(Ctl("status --json").out);
  EXPECT_EQ(line["running"], false);
  EXPECT_EQ(line["dead"], true);
  {
    bsp::StatusBlockHandle block;
    ASSERT_TRUE(block.InitForWrite(bsp::kSystemStatusName, bsp::kSystemStatusSize, 0));
    bsp::StoreWord(block->mods[0].feed_time, INT64_MIN);
  }
  EXPECT_EQ(Json::parse(Ctl("status --json").out)["age_s"], nullptr);
  const auto restart = [] { return log_init_v2(6, "subject", 0) + log_retire(); };
  EXPECT_EQ(Child::Fork(restart).Wait(), 0);
  Fails("status", 1, "nothing is watched");

  server.Signal(SIGTERM);
  EXPECT_EQ(server.Wait(), 0) << server.output();
  EXPECT_EQ(Ctl("status").code, 7) << "shown, but nobody counts the feeds";
}

// Values of any bytes come back as they went in; a key that would overwrite another is refused;
// segments in use are not removed by accident.
TEST(BspCtl, StoresAndSegments) {
  NEED_PRIVATE_WORLD();
  for (const char* words : {"name 'two words'", "bytes 00ff10 --hex", "escape c29b41 --hex"}) {
    Prints(std::string("prop set ") + words, "");
  }
  Prints("prop get name", "two words\n");
  Prints("prop get name --size 3", "two\n");
  Prints("prop get bytes", "0x00ff10\n");
  Prints("prop get escape", "0xc29b41\n");  // it begins a control sequence of terminals
  Prints("prop get bytes --json", "{\"key\":\"bytes\",\"hex\":\"00ff10\"}\n");
  Fails("prop set nam x", 1, "would overwrite name");

  Child writer = Child::Fork([] {
    if (event_cache_init_write(8, 64, 640) != 0) return 1;
    if (event_cache_write(41, "info", 4, "\x01\x02", 2) != 0) return 1;
    puts("written");
    return pause();
  });
  ASSERT_TRUE(writer.WaitForLine("written")) << writer.output();
  Prints("event list --json", "{\"key\":41,\"info\":{\"text\":\"info\"},\"data_bytes\":2}\n");
  EXPECT_EQ(Json::parse(Ctl("event get 41 --json").out)["data"]["hex"], "0102");
  Fails("event get 42", 1, "no event 42");

  const std::string list = Ctl("shm list").out;
  for (const char* text : {"0x65000000", "0x65000011", "0x66000000", "properties", "semaphores"}) {
    EXPECT_NE(list.find(text), std::string::npos) << text << "\n" << list;
  }
  // Another user is told whose the segments are, instead of that there are none.
  const std::string as_other = "setpriv --reuid 65534 --clear-groups " + kCtl;
  if (Child::Run({"/bin/sh", "-c", as_other + "--version"}).Wait() == 0) {  // else not ours to do
    Child other = Child::Run({"/bin/sh", "-c", as_other + "prop list; " + as_other + "shm list"});
    EXPECT_EQ(other.Wait(), 0);
    EXPECT_NE(other.output().find("0x66000000 belongs to user"), std::string::npos);
    EXPECT_NE(other.output().find("events-info-hash"), std::string::npos) << other.output();
  }
  Fails("shm remove events-info-hash", 1, "--force");
  Prints("shm remove events-info-hash --force", "");
  Prints("shm remove 0x66000000", "");
  EXPECT_EQ(Ctl("shm list --json").out.find("properties"), std::string::npos)
      << "the semaphores go with their segment";
}

}  // namespace
