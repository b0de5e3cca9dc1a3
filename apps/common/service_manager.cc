#include "apps/common/service_manager.h"

#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "bsp/util/string_helper.h"
#include "bsp/util/time_util.h"

namespace app {
namespace {

// The variable's text, empty without it; the variable is gone behind the call.
std::string TakeVariable(const char* name) {
  const char* value = getenv(name);
  const std::string text = value != nullptr ? value : "";
  unsetenv(name);
  return text;
}

}  // namespace

ServiceManager::ServiceManager() {
  const std::string path = TakeVariable("NOTIFY_SOCKET");
  const long period_us = bsp::StringHelper::ToInt64(TakeVariable("WATCHDOG_USEC"), 0);
  const std::string watched = TakeVariable("WATCHDOG_PID");
  // A path, or an abstract name behind "@", whose first byte on the wire is 0.
  if (path.size() < 2 || path.size() >= sizeof address_.sun_path) return;
  if (path[0] != '/' && path[0] != '@') return;
  address_.sun_family = AF_UNIX;
  memcpy(address_.sun_path, path.data(), path.size());
  if (path[0] == '@') address_.sun_path[0] = '\0';
  address_size_ = static_cast<socklen_t>(offsetof(struct sockaddr_un, sun_path) + path.size());
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  const bool is_ours = watched.empty() || watched == std::to_string(getpid());
  if (is_ours) period_ms_ = period_us / 3000;
}

ServiceManager::~ServiceManager() {
  if (fd_ != -1) close(fd_);
}

void ServiceManager::Ready() { Send("READY=1"); }

void ServiceManager::Stopping() { Send("STOPPING=1"); }

void ServiceManager::Alive() {
  if (period_ms_ <= 0) return;
  const int64_t now_ms = bsp::TimeUtil::ClockMillis();
  if (last_ms_ != 0 && now_ms - last_ms_ < period_ms_) return;
  last_ms_ = now_ms;
  Send("WATCHDOG=1");
}

void ServiceManager::Send(const std::string& state) {
  if (fd_ == -1) return;
  // Best effort: a manager that does not listen is its own trouble, and must not hold us up.
  sendto(fd_, state.data(), state.size(), MSG_NOSIGNAL | MSG_DONTWAIT,
         reinterpret_cast<const struct sockaddr*>(&address_), address_size_);
}

}  // namespace app
