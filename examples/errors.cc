// An error that is made where it is found, wrapped on its way up, and shown as a chain.
#include <cstdio>
#include <memory>
#include <string>

#include "bsp/base/error.h"
#include "bsp/util/file_util.h"

namespace {

std::shared_ptr<MSError> ReadSerial(const std::string& path, std::string* serial) {
  if (bsp::FileUtil::ReadToString(path, *serial)) return nullptr;
  return BSP_NEW_ERROR(-2, "cannot read %s", path.c_str());
}

std::shared_ptr<MSError> Identify(std::string* name) {
  std::string serial;
  const auto error = ReadSerial("/nowhere/serial", &serial);
  if (error != nullptr) return BSP_WRAP_ERROR(error, "no identity");
  *name = "device-" + serial;
  return nullptr;
}

}  // namespace

int main() {
  std::string name = "none";
  const auto error = Identify(&name);
  if (error != nullptr) printf("code %d: %s", error->ErrorCode(), error->Message().c_str());
  return error != nullptr && name == "none" ? 0 : 1;
}
