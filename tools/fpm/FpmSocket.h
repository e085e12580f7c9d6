// TCP for the FPM feed, over POSIX sockets: "ADDR:PORT" endpoints, a listener,
// an outgoing connection, and a non-blocking connection with an output queue, so
// that neither side of the feed ever blocks the other's event loop.
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace xplpm::fpm {

struct Endpoint {
  sockaddr_storage address{};
  socklen_t length = 0;
};

// "127.0.0.1:2620", "[::1]:2620" or "localhost:2620" (numeric addresses only, and
// "localhost"); nullopt with `why` set otherwise. Port 0 (any free port) only where `anyPort`.
std::optional<Endpoint> parseEndpoint(std::string_view text, std::string& why, bool anyPort = false);

// "ADDR:PORT" of a socket's own address, as bound.
std::string localAddress(int fd);

// An open socket, closed with its owner.
class Socket {
 public:
  Socket() = default;
  explicit Socket(int fd) : fd_(fd) {}
  Socket(Socket&& o) noexcept : fd_(o.release()) {}
  Socket& operator=(Socket&& o) noexcept;
  ~Socket();
  int fd() const { return fd_; }
  explicit operator bool() const { return fd_ >= 0; }
  int release();

 private:
  int fd_ = -1;
};

// A non-blocking listening socket on `at`; an empty Socket with `why` set when that fails.
Socket listenOn(const Endpoint& at, std::string& why);
// A non-blocking socket accepted from `listener`, with the peer's address in `peer`; empty when
// there is none waiting.
Socket acceptFrom(const Socket& listener, std::string& peer);
// A connected, then non-blocking, socket to `to`; empty with `why` set when that fails.
Socket connectTo(const Endpoint& to, std::string& why);

// One TCP connection of the feed: reads what has arrived, queues what is to be sent and sends it
// as the peer takes it.
class Connection {
 public:
  explicit Connection(Socket s, std::size_t maxQueued = std::size_t(256) << 20)
      : socket_(std::move(s)), maxQueued_(maxQueued) {}

  int fd() const { return socket_.fd(); }
  enum class Read { data, none, closed, failed };
  // Reads at most `max` bytes; `got` views them in the connection's buffer until the next read.
  // `failed` sets `why`.
  Read read(std::size_t max, std::string_view& got, std::string& why);
  // Queues bytes to send; beyond the queue's limit they are dropped and false is answered,
  // so that a peer that never reads costs bounded memory.
  bool queue(std::string_view bytes);
  // Sends what the peer takes now; false with `why` set when the connection failed.
  bool flush(std::string& why);
  bool wantsWrite() const { return sent_ < out_.size(); }
  std::size_t queued() const { return out_.size() - sent_; }

 private:
  Socket socket_;
  std::size_t maxQueued_;
  std::string out_;
  std::size_t sent_ = 0;
  // Kept at its largest size, so that a read does not clear what it is about to overwrite.
  std::string in_;
};

}  // namespace xplpm::fpm
