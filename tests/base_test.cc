// Error object, utilities and the console log.
#include <gtest/gtest.h>

#include <cstring>
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
using Pieces = std::vector<std::string>;

// The chain prints its texts once, in order, closed by one point, and a numbered place for each
// error, also for those without text or place. Misuse ends in order.
TEST(MSError, MessageShowsTheWholeChain) {
  const auto inner = MSError::Newf(-4, "connect %s.", "failed")->SetTracePoint("a.cc", 1);
  inner->SetTracePoint("in.cc", 12);
  const auto outer = BSP_WRAP_ERROR(inner, "open %d", 7);
  const std::string here = "base_test.cc:" + std::to_string(__LINE__ - 1);
  EXPECT_EQ(outer->ErrorCode(), -4);
  EXPECT_EQ(outer->InnerError(), inner);
  EXPECT_EQ(outer->Message(),
            "open 7, connect failed.\n  [1] " + here + " -4\n  [2] in.cc:12 -4\n");
  EXPECT_EQ(MSError::Wrapf(inner, "%s", "")->Message(),
            "connect failed.\n  [1] :0 -4\n  [2] in.cc:12 -4\n");
  EXPECT_EQ(MSError::Wrapf(nullptr, "x")->ErrorCode(), -1);
  EXPECT_EQ(MSError::Newf(1, "x")->SetTracePoint(nullptr, 1)->Message(), "x.\n  [1] :1 1\n");
  MSError on_stack("text", 1, nullptr);
  EXPECT_EQ(on_stack.SetTracePoint("f.cc", 3), nullptr);
}

// Runs the calls in a child and gives its lines on standard output; the last is empty.
Pieces LinesOf(const std::function<void()>& calls) {
  test::Child child = test::Child::Fork([&] {
    calls();
    return 0;
  });
  EXPECT_EQ(child.Wait(), 0);
  return StringHelper::Split(child.output(), "\n");
}

// What is filtered prints nothing, what passes prints the one line, and a text is cut at 1022.
// Without a client each record call says so. Arguments are evaluated once, filtered or not. Lines
// of threads that log at once stay whole, time text included.
TEST(Log, FiltersAndPrints) {
  constexpr size_t kSingle = 9;
  constexpr size_t kThreads = 4;
  constexpr size_t kLines = 500;
  const Pieces lines = LinesOf([] {
    int count = 0;
    BSP_LOG_DEBUG("MOD_T", "filtered %d", ++count);
    BSP_LOG_INFO("MOD_T", "passed %d", ++count);
    g_log_level = BSP_LEVEL_EMERG;
    BSP_LOG_ALERT("MOD_T", "filtered too");
    _log_debug("MOD_T", 8, "f", "g", 1, "never");
    _log_debug("MOD_T", 0, "f.cc", "g", 1, "%s", std::string(2000, 'x').c_str());
    _log_debug("MOD_T", 0, "f.cc", "g", 1, nullptr);
    g_log_level = -5;
    _log_debug("MOD_T", -1, "f", "g", 1, "never");
    BSP_TRACE(1, 2, "t");
    BSP_CONTROL(2, "c");
    BSP_SYSTEM(3, "s");
    BSP_FEED_DOG();
    g_log_level = BSP_LEVEL_EMERG;
    std::vector<std::thread> threads;
    for (size_t t = 0; t < kThreads; ++t) {
      threads.emplace_back([] {
        for (size_t i = 0; i < kLines; ++i) _log_debug("MOD_T", 0, "f.cc", "g", 1, "line");
      });
    }
    for (std::thread& thread : threads) thread.join();
  });
  ASSERT_EQ(lines.size(), kSingle + kThreads * kLines + 1);
  EXPECT_EQ(lines[0].substr(24, 28), "] MOD_T <info> base_test.cc:");
  EXPECT_NE(lines[0].find(" operator(), passed 2"), std::string::npos);
  EXPECT_EQ(lines[1], "log level 8 is invalid.");
  EXPECT_EQ(lines[2].substr(24), "] MOD_T <emerg> f.cc:1 g, " + std::string(1022, 'x'));
  EXPECT_EQ(lines[3].substr(24), "] MOD_T <emerg> f.cc:1 g, ");
  EXPECT_EQ(lines[4], "log level -1 is invalid.");
  for (size_t i = 5; i < kSingle; ++i) EXPECT_EQ(lines[i], "log_cli is null.");
  for (size_t i = kSingle; i + 1 < lines.size(); ++i) {
    ASSERT_EQ(lines[i].substr(0, 3) + lines[i].substr(24), "[20] MOD_T <emerg> f.cc:1 g, line");
  }
}

// A sink gets what passes, with the caller's format, and standard output nothing; what is filtered
// does not reach it. Without it all is as before.
TEST(Log, SinkTakesThePlaceOfStandardOutput) {
  const Pieces lines = LinesOf([] {
    bsp::SetLogSink([](const bsp::LogLine& line) noexcept {
      fprintf(stderr, "%s %d %s:%d %s|%s|%zu %.9s\n", line.module, line.level, line.file, line.line,
              line.func, line.format, strlen(line.text), line.text);
    });
    BSP_LOG_DEBUG("MOD_T", "filtered");
    _log_debug("MOD_T", 6, "f.cc", "g", 1, "<%s>", std::string(2000, 'x').c_str());
    _log_debug("MOD_T", 0, "f.cc", "g", 2, nullptr);
    _log_debug("MOD_T", 8, "f.cc", "g", 3, "never");
    bsp::SetLogSink(nullptr);
    _log_debug("MOD_T", 8, "f.cc", "g", 4, "never");
  });
  EXPECT_EQ(lines, (Pieces{"MOD_T 6 f.cc:1 g|<%s>|1022 <xxxxxxxx", "MOD_T 0 f.cc:2 g||0 ",
                           "MOD_T 3 f.cc:3 g|log level %d is invalid.|23 log level",
                           "log level 8 is invalid.", ""}));
}

// Empty pieces count, a prefix compares equal, no copy writes outside its destination, and a number
// is digits that fit.
TEST(StringHelper, BothSidesOfEachLimit) {
  EXPECT_EQ(StringHelper::Format("%s-%d", "a", 5) + StringHelper::Format(nullptr), "a-5");
  EXPECT_EQ(StringHelper::Split("a,,b,", ","), (Pieces{"a", "", "b", ""}));
  EXPECT_EQ(StringHelper::Split("a::b:c", "::"), (Pieces{"a", "b:c"}));
  EXPECT_TRUE(StringHelper::Split("abc", "").empty() && StringHelper::Split("", ",").empty());
  EXPECT_EQ(StringHelper::Compare("abc", 3, "abcd", 4), 0);
  EXPECT_LT(StringHelper::Compare("abb", 3, "abcd", 4), 0);
  EXPECT_EQ(StringHelper::Compare(nullptr, 3, "a", 1) + StringHelper::Compare("a", 1, "a", 0), -2);
  char dst[6] = "#####";
  EXPECT_EQ(StringHelper::Copy(dst, 5, "") + StringHelper::Copy(dst, 0, "ab"), 0u);
  EXPECT_EQ(StringHelper::Copy(dst, 5, nullptr) + StringHelper::Copy(nullptr, 5, "ab"), 0u);
  EXPECT_STREQ(dst, "#####");
  EXPECT_EQ(StringHelper::Copy(dst, 4, "abcdefgh"), 3u);
  EXPECT_EQ(std::string(dst, 6), std::string("abc\0#", 6));

  EXPECT_EQ(StringHelper::ToInt32("02147483647", 7), 2147483647);
  for (const char* bad : {"", "12a", "-5", "+5", " 5", "2147483648", "99999999999999999999"}) {
    EXPECT_EQ(StringHelper::ToInt32(bad, 7), 7) << bad;
  }
  EXPECT_EQ(StringHelper::ToInt64("9223372036854775807", 7), 9223372036854775807L);
  EXPECT_EQ(StringHelper::ToInt64("9223372036854775808", 7), 7);
}

// A failure leaves the content alone, also one that comes behind the opening.
TEST(FileUtil, WholeFiles) {
  const std::string dir = test::MakeTempDir();
  const std::string path = dir + "/f";
  std::string content = "old";
  EXPECT_FALSE(FileUtil::IsFileExist(path) || FileUtil::ReadToString(path, content));
  EXPECT_FALSE(FileUtil::ReadToString(dir, content));
  EXPECT_EQ(content, "old");
  for (const auto& bytes : {std::string("a\0b\n\xff", 5), std::string(9999, 'x'), std::string()}) {
    EXPECT_TRUE(FileUtil::WriteToFile(path, bytes) && FileUtil::ReadToString(path, content));
    EXPECT_EQ(content, bytes);
  }
  EXPECT_TRUE(FileUtil::IsFileExist(path));
  EXPECT_FALSE(FileUtil::WriteToFile(dir + "/no/f", "x"));
}

// The texts have their fixed form in the zone of the process, and the clocks run together.
TEST(TimeUtil, TextsAndClocks) {
  const Pieces lines = LinesOf([] {
    setenv("TZ", "UTC-3", 1);
    tzset();
    struct tm local = {};
    TimeUtil::LocalTime(&local, 0);
    if (local.tm_year < 100) return;
    TimeUtil::LocalTime(&local, 86400);
    printf("%d %d %d\n%s\n%s\n", local.tm_mday, local.tm_hour, local.tm_min,
           TimeUtil::TimeMillisStr(), TimeUtil::TimeSecondStr());
  });
  ASSERT_EQ(lines.size(), 4u);
  EXPECT_EQ(lines[0], "2 3 0");
  EXPECT_TRUE(lines[1].size() == 23 && lines[1][19] == '.' && lines[2].size() == 19);

  EXPECT_EQ(bsp::ProcUtil::GetTid(), getpid());
  std::thread([] { EXPECT_NE(bsp::ProcUtil::GetTid(), getpid()); }).join();
  const int64_t before = TimeUtil::ClockMillis();
  TimeUtil::SleepMs(20);
  EXPECT_GE(TimeUtil::ClockMillis() - before, 19);  // the raw clock may run a little slower
  const int64_t early = TimeUtil::TimeMillis();
  const int64_t second = TimeUtil::TimeSecond();  // of a clock that ticks more coarsely
  EXPECT_TRUE(second >= early / 1000 - 1 && second <= TimeUtil::TimeMillis() / 1000) << second;
}

// A program that loads the library late, after others have taken the room for static thread-local
// storage, can, and is rid of it again when it unloads it.
TEST(Library, LoadsLateAndUnloads) {
  const std::string tests = BSP_TEST_BUILD_DIR "/tests/";
  test::Child host = test::Child::Run(
      {tests + "plugin_host", tests + "tls_hog.so", BSP_TEST_BUILD_DIR "/lib/libbsp.so"});
  EXPECT_EQ(host.Wait(), 0) << host.output();
}

}  // namespace
