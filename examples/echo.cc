// A TCP server on an event loop that sends back what it gets, and one client that tries it.
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <thread>

#include "bsp/base/error.h"
#include "bsp/base/socket.h"
#include "bsp/net/event_loop.h"
#include "bsp/net/tcp_client.h"
#include "bsp/net/tcp_server.h"
#include "bsp/util/memory_buffer.h"

namespace {

// All of it runs on the loop's thread.
class Echo : public sigslot::has_slots<> {
 public:
  explicit Echo(std::shared_ptr<bsp::EventLoop> loop) : loop_(std::move(loop)) {}

  void OnAccept(std::shared_ptr<bsp::TcpServer>, std::shared_ptr<bsp::Socket> socket) {
    const auto peer = std::make_shared<bsp::TcpClient>(loop_);
    peer->SignalRead.connect(this, &Echo::OnRead);
    peer->SignalError.connect(this, &Echo::OnError);
    if (peer->UpdateSocket(socket)) peers_.insert(peer);
  }

  void OnRead(std::shared_ptr<bsp::TcpClient> peer, std::shared_ptr<bsp::MemoryBuffer> received) {
    const std::string bytes = received->ToString();
    received->Clear();
    peer->Send(bytes.data(), bytes.size());
  }

  void OnError(std::shared_ptr<bsp::TcpClient> peer, std::shared_ptr<MSError>) {
    peer->Disconnect();
    peers_.erase(peer);
  }

 private:
  std::shared_ptr<bsp::EventLoop> loop_;
  std::set<std::shared_ptr<bsp::TcpClient>> peers_;
};

}  // namespace

int main() {
  const auto loop = std::make_shared<bsp::EventLoop>();
  const auto server = std::make_shared<bsp::TcpServer>(loop);
  Echo echo(loop);
  server->SignalAccept.connect(&echo, &Echo::OnAccept);
  if (!server->Listen("127.0.0.1", 0)) return 1;  // 0: any free port
  std::thread thread([&] { loop->Loop(); });

  bsp::Socket socket;
  char answer[5] = "";
  const bool is_answered = socket.Create(bsp::Socket::SOCKET_STREAM) &&
                           socket.Connect(bsp::SocketAddress("127.0.0.1", server->GetPort())) &&
                           socket.Send("ping", 4) == 4 && socket.Recv(answer, 4) == 4;
  printf("echo: %s\n", answer);

  loop->Stop();
  loop->Wakeup();
  thread.join();
  return is_answered ? 0 : 1;
}
