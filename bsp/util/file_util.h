// Whole-file read and write.
#ifndef BSP_UTIL_FILE_UTIL_H_
#define BSP_UTIL_FILE_UTIL_H_

#include <string>

#include "bsp/base/macros.h"

namespace bsp {

// Failures to open are told on standard error. Threads: any.
class BSP_EXPORT FileUtil {
 public:
  // True when the path can be opened for reading; a file that cannot counts as not existing.
  static bool IsFileExist(const std::string& path);

  // Replaces *content by all bytes of the file. False, with content unchanged, when it cannot be
  // opened or, a folder for one, not be read.
  static bool ReadToString(const std::string& path, std::string& content);

  // Creates or truncates the file and writes the content. False only when it cannot be opened:
  // errors of the writing itself are not looked at.
  static bool WriteToFile(const std::string& path, const std::string& content);
};

}  // namespace bsp

#endif  // BSP_UTIL_FILE_UTIL_H_
