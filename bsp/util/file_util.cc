#include "bsp/util/file_util.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <utility>

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
  file.peek();  // a folder opens, but its first read fails
  if (file.bad()) return RefuseOpen(path);
  file.clear();
  content.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
  return true;
}

bool FileUtil::WriteToFile(const std::string& path, const std::string& content) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (!file) return RefuseOpen(path);
  file.write(content.data(), static_cast<std::streamsize>(content.size()));
  return true;
}

}  // namespace bsp
