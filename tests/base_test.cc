// Error object, utilities and the console log.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <thread>
#include <vector>

#include "bsp/base/error.h"
#include "bsp/log/log.h"
#include "bsp/util/file_util.h"
#include "bsp/util/proc_util.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"
#include "tests/support/child.h"
#include "tests/support/test_env.h"

namespace {

using bsp::FileUtil;
using bsp::StringHelper;
using bsp::TimeUtil;

// The chain prints its texts once, in order, closed by one point, and a numbered place for each
// error, also for those without text or place.
TEST(MSError, MessageShowsTheWholeChain) {
  const auto inner = MSError::Newf(-4, "connect %s.", "failed")->SetTracePoint("a.cc", 1);
  inner->SetTracePoint("in.cc", 12);
  const auto outer = BSP_WRAP_ERROR(inner, "open %d", 7);
  const int line = __LINE__ - 1;
  EXPECT_EQ(outer->ErrorCode(), -4);
  EXPECT_EQ(outer->InnerError(), inner);
  EXPECT_EQ(outer->Message(), "open 7, connect failed.\n  [1] base_test.cc:" +
                                  std::to_string(line) + " -4\n  [2] in.cc:12 -4\n");
  EXPECT_EQ(MSError::Wrapf(inner, "%s", "")->Message(),
            "connect failed.\n  [1] :0 -4\n  [2] in.cc:12 -4\n");
  EXPECT_EQ(MSError::Newf(3, "%s", "")->Message(), "\n  [1] :0 3\n");
  EXPECT_EQ(MSError::Newf(3, "no point")->Message(), "no point.\n  [1] :0 3\n");
}

// Misuse ends in order: no inner error, no owner, no format, a text of any length.
TEST(MSError, MisuseDoesNoHarm) {
  EXPECT_EQ(MSError::Wrapf(nullptr, "x")->ErrorCode(), -1);
  MSError on_stack("text", 1, nullptr);
  EXPECT_EQ(on_stack.SetTracePoint("f.cc", 3), nullptr);
  EXPECT_EQ(on_stack.Message(), "text.\n  [1] f.cc:3 1\n");
  EXPECT_EQ(MSError::Newf(1, "x")->SetTracePoint(nullptr, 1)->Message(), "x.\n  [1] :1 1\n");
  const std::string huge(100000, 'h');
  EXPECT_EQ(MSError::Newf(1, "%s", huge.c_str())->Message().size(), huge.size() + 13);
}

// Runs the calls in a child and gives its standard output.
std::string OutputOf(const std::function<void()>& calls) {
  test::Child child = test::Child::Fork([&] {
    calls();
    return 0;
  });
  EXPECT_EQ(child.Wait(), 0);
  return child.output();
}

// What is filtered prints nothing, what passes prints the one line, and a text is cut at 1022.
TEST(Log, FiltersAndPrints) {
  const std::string out = OutputOf([] {
    BSP_LOG_DEBUG("MOD_T", "filtered %d", 1);
    BSP_LOG_INFO("MOD_T", "passed %d", 2);
    g_log_level = BSP_LEVEL_EMERG;
    BSP_LOG_ALERT("MOD_T", "filtered too");
    _log_debug("MOD_T", 8, "f", "g", 1, "never");
    _log_debug("MOD_T", -1, "f", "g", 1, "never");
    _log_debug("MOD_T", 0, "f.cc", "g", 1, "%s", std::string(2000, 'x').c_str());
    _log_debug("MOD_T", 0, "f.cc", "g", 1, nullptr);
    g_log_level = -5;
    _log_debug("MOD_T", -1, "f", "g", 1, "never");
  });
  const std::vector<std::string> lines = StringHelper::Split(out, "\n");
  ASSERT_EQ(lines.size(), 7u) << out;  // the last is empty
  EXPECT_EQ(lines[0][0], '[');
  EXPECT_EQ(lines[0][24], ']');
  EXPECT_NE(lines[0].find("] MOD_T <info> base_test.cc:"), std::string::npos);
  EXPECT_NE(lines[0].find("operator(), passed 2"), std::string::npos);
  EXPECT_EQ(lines[1], "log level 8 is invalid.");
  EXPECT_EQ(lines[2], "log level -1 is invalid.");
  EXPECT_EQ(lines[3].substr(24), "] MOD_T <emerg> f.cc:1 g, " + std::string(1022, 'x'));
  EXPECT_EQ(lines[4].substr(24), "] MOD_T <emerg> f.cc:1 g, ");
  EXPECT_EQ(lines[5], "log level -1 is invalid.");
}

// Without a client each record call says so, and the arguments of a macro are evaluated once.
TEST(Log, RecordsWithoutClientSaySo) {
  int count = 0;
  EXPECT_EQ(OutputOf([] {
              BSP_TRACE(1, 2, "t");
              BSP_CONTROL(2, "c");
              BSP_SYSTEM(3, "s");
              BSP_FEED_DOG();
            }),
            "log_cli is null.\nlog_cli is null.\nlog_cli is null.\nlog_cli is null.\n");
  BSP_LOG_DEBUG("MOD_T", "filtered, yet counted once: %d", ++count);
  EXPECT_EQ(count, 1);
}

// Lines of threads that log at once stay whole, time text included.
TEST(Log, LinesOfThreadsDoNotMix) {
  constexpr int kThreads = 4;
  constexpr int kLines = 500;
  const std::string out = OutputOf([] {
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
      threads.emplace_back([t] {
        for (int i = 0; i < kLines; ++i) BSP_LOG_INFO("MOD_T", "thread %d line", t);
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  const std::vector<std::string> lines = StringHelper::Split(out, "\n");
  ASSERT_EQ(lines.size(), static_cast<size_t>(kThreads * kLines + 1));
  for (size_t i = 0; i + 1 < lines.size(); ++i) {
    ASSERT_EQ(lines[i].substr(0, 3), "[20") << lines[i];
    ASSERT_EQ(lines[i].substr(24, 9), "] MOD_T <") << lines[i];
    ASSERT_EQ(lines[i].substr(lines[i].size() - 5), " line") << lines[i];
  }
}

TEST(StringHelper, Texts) {
  EXPECT_EQ(StringHelper::Format("%s-%d", "a", 5), "a-5");
  EXPECT_EQ(StringHelper::Format(nullptr), "");
  using Pieces = std::vector<std::string>;
  EXPECT_EQ(StringHelper::Split("a,,b", ","), (Pieces{"a", "", "b"}));
  EXPECT_EQ(StringHelper::Split("a,", ","), (Pieces{"a", ""}));
  EXPECT_EQ(StringHelper::Split("a::b:c", "::"), (Pieces{"a", "b:c"}));
  EXPECT_EQ(StringHelper::Split("abc", ","), (Pieces{"abc"}));
  EXPECT_TRUE(StringHelper::Split("abc", "").empty());
  EXPECT_TRUE(StringHelper::Split("", ",").empty());

  EXPECT_EQ(StringHelper::Compare("abc", 3, "abcd", 4), 0);
  EXPECT_LT(StringHelper::Compare("abb", 3, "abcd", 4), 0);
  EXPECT_EQ(StringHelper::Compare(nullptr, 3, "a", 1), -1);
  EXPECT_EQ(StringHelper::Compare("a", 1, "a", 0), -1);
}

// No copy writes outside its destination, and an empty source leaves it alone.
TEST(StringHelper, CopyIsBounded) {
  char dst[6] = "#####";
  EXPECT_EQ(StringHelper::Copy(dst, 5, ""), 0u);
  EXPECT_EQ(StringHelper::Copy(dst, 0, "ab"), 0u);
  EXPECT_EQ(StringHelper::Copy(dst, 5, nullptr), 0u);
  EXPECT_EQ(StringHelper::Copy(nullptr, 5, "ab"), 0u);
  EXPECT_STREQ(dst, "#####");
  EXPECT_EQ(StringHelper::Copy(dst, 4, "abcdefgh"), 3u);
  EXPECT_STREQ(dst, "abc");
  EXPECT_EQ(dst[4], '#');
  EXPECT_EQ(StringHelper::Copy(dst, 1, "x"), 0u);
  EXPECT_STREQ(dst, "");
}

TEST(StringHelper, NumbersAreDigitsThatFit) {
  EXPECT_EQ(StringHelper::ToInt32("0042", 7), 42);
  EXPECT_EQ(StringHelper::ToInt32("2147483647", 7), 2147483647);
  for (const char* bad : {"", "12a", "-5", "+5", " 5", "2147483648", "99999999999999999999"}) {
    EXPECT_EQ(StringHelper::ToInt32(bad, 7), 7) << bad;
  }
  EXPECT_EQ(StringHelper::ToInt64("9223372036854775807", 7), 9223372036854775807L);
  EXPECT_EQ(StringHelper::ToInt64("9223372036854775808", 7), 7);
}

TEST(FileUtil, WholeFiles) {
  const std::string dir = test::MakeTempDir();
  const std::string path = dir + "/f";
  const std::string bytes("a\0b\n\xff", 5);
  std::string content = "old";
  EXPECT_FALSE(FileUtil::IsFileExist(path));
  EXPECT_FALSE(FileUtil::ReadToString(path, content));
  EXPECT_FALSE(FileUtil::ReadToString(dir, content));
  EXPECT_EQ(content, "old");
  EXPECT_TRUE(FileUtil::WriteToFile(path, std::string(9, 'x')));
  EXPECT_TRUE(FileUtil::WriteToFile(path, bytes));
  EXPECT_TRUE(FileUtil::IsFileExist(path));
  EXPECT_TRUE(FileUtil::ReadToString(path, content));
  EXPECT_EQ(content, bytes);
  EXPECT_TRUE(FileUtil::WriteToFile(path, ""));
  EXPECT_TRUE(FileUtil::ReadToString(path, content));
  EXPECT_EQ(content, "");
  EXPECT_FALSE(FileUtil::WriteToFile(dir + "/no/f", bytes));
}

// The texts have their fixed form in the zone of the process, and each thread its own buffer.
TEST(TimeUtil, Texts) {
  const std::string out = OutputOf([] {
    setenv("TZ", "UTC-3", 1);
    tzset();
    struct tm local = {};
    TimeUtil::LocalTime(&local, 86400);
    printf("%d %d %d|%s|%s", local.tm_mday, local.tm_hour, local.tm_min, TimeUtil::TimeMillisStr(),
           TimeUtil::TimeSecondStr());
  });
  const std::vector<std::string> parts = StringHelper::Split(out, "|");
  ASSERT_EQ(parts.size(), 3u) << out;
  EXPECT_EQ(parts[0], "2 3 0");
  EXPECT_EQ(parts[1].size(), 23u);
  EXPECT_EQ(parts[1][19], '.');
  EXPECT_EQ(parts[2].size(), 19u);

  const char* mine = TimeUtil::TimeMillisStr();
  const char* other = nullptr;
  std::thread([&] { other = TimeUtil::TimeMillisStr(); }).join();
  EXPECT_NE(mine, other);
  struct tm now = {};
  ASSERT_EQ(TimeUtil::LocalTime(&now, 0), &now);
  EXPECT_GT(now.tm_year, 100);
  EXPECT_EQ(TimeUtil::LocalTime(nullptr, 0), nullptr);
}

TEST(TimeUtil, ClocksRunTogether) {
  const int64_t before = TimeUtil::ClockMillis();
  TimeUtil::SleepMs(20);
  EXPECT_GE(TimeUtil::ClockMillis() - before, 19);  // the raw clock may run a little slower
  EXPECT_LE(TimeUtil::ClockSecond() - TimeUtil::ClockMillis() / 1000, 0);
  EXPECT_LE(std::abs(TimeUtil::TimeSecond() - TimeUtil::TimeMillis() / 1000), 1);
  pid_t other = 0;
  std::thread([&] { other = bsp::ProcUtil::GetTid(); }).join();
  EXPECT_EQ(bsp::ProcUtil::GetTid(), getpid());
  EXPECT_NE(other, getpid());
}

}  // namespace
