#include "bsp/util/file_util.h"

#include <fstream>
#include <iostream>

namespace bsp {
namespace {

bool RefuseOpen(const std::string& path) {
  std::cerr << "Failed to open file: " << path << std::endl;
  return false;
}

}  // namespace

bool FileUtil::IsFileExist(const std::string& path) { return std::ifstream(path).good(); }

bool FileUtil::ReadToString(const std::string& path, std::string& content) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return RefuseOpen(path);
  std::string bytes;
  char chunk[4096];
  do {
    file.read(chunk, sizeof chunk);
    bytes.append(chunk, static_cast<size_t>(file.gcount()));
  } while (file);
  if (file.bad()) return RefuseOpen(path);  // a folder opens, but its first read fails
  content.swap(bytes);
  return true;
}

bool FileUtil::WriteToFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) return RefuseOpen(path);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  return true;
}

}  // namespace bsp
