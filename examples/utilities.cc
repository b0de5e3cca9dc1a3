// Clocks, texts, files.
#include <cstdio>
#include <string>

#include "bsp/util/file_util.h"
#include "bsp/util/proc_util.h"
#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

using bsp::FileUtil;
using bsp::ProcUtil;
using bsp::StringHelper;
using bsp::TimeUtil;

int main() {
  const int64_t begin_ms = TimeUtil::ClockMillis();  // never set by anybody: for delays
  TimeUtil::SleepMs(20);
  const int64_t took_ms = TimeUtil::ClockMillis() - begin_ms;
  printf("%s slept for %s\n", TimeUtil::TimeMillisStr(), took_ms >= 20 ? "20 ms" : "less");

  const std::string path = StringHelper::Format("/tmp/bsp-utilities-%d", ProcUtil::GetTid());
  FileUtil::WriteToFile(path, "speed=40;level=high");
  std::string text;
  if (!FileUtil::ReadToString(path, text)) return 1;
  for (const std::string& setting : StringHelper::Split(text, ";")) {
    const std::string value = StringHelper::Split(setting, "=")[1];
    printf("%s: %d\n", setting.c_str(), StringHelper::ToInt32(value, -1));  // -1: no number
  }
  remove(path.c_str());
  return FileUtil::IsFileExist(path) ? 1 : 0;
}
