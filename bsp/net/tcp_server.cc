// When descriptors run out
// ------------------------
// accept then fails with EMFILE and the connection stays in the kernel's queue. Level-triggered
// reactors spin on it; this edge-triggered one would leave the peer waiting for an answer that
// never comes. With a descriptor in reserve the server gives that one up, accepts, closes, and
// takes the reserve back: the peer learns at once. Another thread may snatch the free number in
// between; then, as after any other failure of accept, whoever waits is tried again a moment later.
#include "bsp/net/tcp_server.h"

#include <fcntl.h>
#include <sys/socket.h>

#include <cerrno>

#include "bsp/log/log.h"

namespace bsp {

namespace {

constexpr int kAcceptsPerTurn = 256;  // so that a flood of connects leaves time for the rest
constexpr unsigned int kListenMask = EVENT_READ | EVENT_ERROR;

constexpr int64_t kRetryMs = 100;  // until accept is tried again after a failure

bool IsOutOfDescriptors(int error) { return error == EMFILE || error == ENFILE; }

}  // namespace

TcpServer::TcpServer(std::shared_ptr<EventLoop> loop) : loop_(std::move(loop)) {}

TcpServer::~TcpServer() { Socket::Close(reserve_fd_); }

bool TcpServer::Listen(const std::string& host, int port) {
  socket_ = std::make_shared<Socket>();
  if (!socket_->Create(Socket::SOCKET_STREAM)) {
    BSP_LOG_ERROR(MOD_BSP, "create socket failed.");
    return false;
  }
  const int on = 1;
  if (options_.reuse_address) socket_->SetOption(SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  address_.Set(host, port);
  if (!socket_->Bind(address_)) {
    BSP_LOG_ERROR(MOD_BSP, "bind socket failed.");
    return false;
  }
  if (!socket_->Listen(options_.backlog)) {
    BSP_LOG_ERROR(MOD_BSP, "listen socket failed.");
    return false;
  }
  socket_->SetBlocking(1);
  if (options_.keep_reserve) OpenReserve();
  is_watched_ = loop_->AddEvent(socket_, kListenMask, this, weak_from_this());
  return true;
}

int TcpServer::GetPort() const {
  SocketAddress bound;
  socklen_t length = SocketAddress::SizeOf();
  if (socket_ == nullptr) return -1;
  if (getsockname(socket_->GetNativeSocket(), bound.Native(), &length) == -1) return -1;
  return bound.Port();
}

void TcpServer::OnRead() {
  const std::shared_ptr<TcpServer> self = shared_from_this();
  if (socket_ == nullptr) return;
  if (options_.keep_reserve) OpenReserve();
  for (int accepted = 0; accepted < kAcceptsPerTurn; ++accepted) {
    std::shared_ptr<Socket> connection;
    int error = ENOMEM;  // unless Accept returns
    loop_->RunContained([&] {
      connection = socket_->Accept();
      error = Socket::ErrorNo();
    });
    if (connection != nullptr) {
      is_failing_ = false;
      loop_->RunContained([&] { SignalAccept(self, connection); });
    } else if (error == EAGAIN || error == EWOULDBLOCK) {
      return;
    } else if (!IsOutOfDescriptors(error) || !TurnAway()) {
      AcceptLater(error);
      return;
    }
  }
  loop_->CallAgain(self, EVENT_READ);  // for what is left
}

void TcpServer::AcceptLater(int error) {
  if (options_.keep_reserve && !is_failing_) {
    BSP_LOG_ERROR(MOD_BSP, "accept failed, errno %d: trying again", error);
  }
  is_failing_ = true;
  loop_->CallAt(EventLoop::NowMs() + kRetryMs, [weak = weak_from_this()] {
    const std::shared_ptr<TcpServer> self = weak.lock();
    if (self != nullptr) self->OnRead();
  });
}

void TcpServer::OnWrite() { BSP_LOG_DEBUG(MOD_BSP, "%s", ""); }

void TcpServer::OnError() { BSP_LOG_DEBUG(MOD_BSP, "%s", ""); }

void TcpServer::OpenReserve() {
  if (reserve_fd_ == -1) reserve_fd_ = open("/dev/null", O_RDONLY | O_CLOEXEC);
}

bool TcpServer::TurnAway() {
  int count = 0;
  while (reserve_fd_ != -1 && count < kAcceptsPerTurn) {
    Socket::Close(reserve_fd_);
    const bool is_accepted = socket_->Accept() != nullptr;  // and closed again
    OpenReserve();
    if (!is_accepted) break;
    ++count;
  }
  if (count == 0) return false;
  BSP_LOG_ERROR(MOD_BSP, "no descriptor left, %d connections turned away: raise the limit", count);
  return true;
}

}  // namespace bsp
