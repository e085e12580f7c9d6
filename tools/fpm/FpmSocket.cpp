// Sockets of the FPM feed.
#include "fpm/FpmSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>

namespace xplpm::fpm {

namespace {

bool nonBlocking(int fd) {
  const int flags = fcntl(fd, F_GETFL);
  return flags >= 0 && fcntl(fd, F_SETFL, flags | O_NONBLOCK) == 0;
}

// Frames are small and the peer waits for them: no Nagle delay.
void noDelay(int fd) {
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

std::string errnoText(const char* what) { return std::string(what) + ": " + std::strerror(errno); }

}  // namespace

std::optional<Endpoint> parseEndpoint(std::string_view text, std::string& why, bool anyPort) {
  const auto colon = text.rfind(':');
  if (colon == std::string_view::npos) {
    why = "'" + std::string(text) + "' is not ADDR:PORT";
    return std::nullopt;
  }
  std::string_view host = text.substr(0, colon), portText = text.substr(colon + 1);
  unsigned port = 0;
  const auto [end, ec] = std::from_chars(portText.data(), portText.data() + portText.size(), port);
  if (portText.empty() || ec != std::errc() || end != portText.data() + portText.size() || (port == 0 && !anyPort) ||
      port > 65535) {
    why = "'" + std::string(portText) + "' is not a port (" + (anyPort ? "0" : "1") + " to 65535)";
    return std::nullopt;
  }
  if (host.size() >= 2 && host.front() == '[' && host.back() == ']') host = host.substr(1, host.size() - 2);
  const std::string name = host == "localhost" ? "127.0.0.1" : std::string(host);
  Endpoint e;
  auto* v4 = reinterpret_cast<sockaddr_in*>(&e.address);
  auto* v6 = reinterpret_cast<sockaddr_in6*>(&e.address);
  if (inet_pton(AF_INET, name.c_str(), &v4->sin_addr) == 1) {
    v4->sin_family = AF_INET;
    v4->sin_port = htons(static_cast<std::uint16_t>(port));
    e.length = sizeof(sockaddr_in);
  } else if (inet_pton(AF_INET6, name.c_str(), &v6->sin6_addr) == 1) {
    v6->sin6_family = AF_INET6;
    v6->sin6_port = htons(static_cast<std::uint16_t>(port));
    e.length = sizeof(sockaddr_in6);
  } else {
    why = "'" + std::string(host) + "' is not an IPv4 or IPv6 address";
    return std::nullopt;
  }
  return e;
}

Socket& Socket::operator=(Socket&& o) noexcept {
  if (this != &o) {
    if (fd_ >= 0) close(fd_);
    fd_ = o.release();
  }
  return *this;
}

Socket::~Socket() {
  if (fd_ >= 0) close(fd_);
}

int Socket::release() {
  const int fd = fd_;
  fd_ = -1;
  return fd;
}

Socket listenOn(const Endpoint& at, std::string& why) {
  Socket s(socket(at.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!s) {
    why = errnoText("socket");
    return {};
  }
  const int one = 1;
  setsockopt(s.fd(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  if (bind(s.fd(), reinterpret_cast<const sockaddr*>(&at.address), at.length) != 0 || listen(s.fd(), 4) != 0 ||
      !nonBlocking(s.fd())) {
    why = errnoText("cannot listen on it");
    return {};
  }
  return s;
}

namespace {

std::string addressText(const sockaddr_storage& a) {
  char text[INET6_ADDRSTRLEN] = "?";
  const bool v6 = a.ss_family == AF_INET6;
  const auto* in4 = reinterpret_cast<const sockaddr_in*>(&a);
  const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&a);
  inet_ntop(a.ss_family, v6 ? static_cast<const void*>(&in6->sin6_addr) : &in4->sin_addr, text, sizeof text);
  const unsigned port = ntohs(v6 ? in6->sin6_port : in4->sin_port);
  return (v6 ? "[" + std::string(text) + "]" : std::string(text)) + ":" + std::to_string(port);
}

}  // namespace

std::string localAddress(int fd) {
  sockaddr_storage a{};
  socklen_t length = sizeof a;
  return getsockname(fd, reinterpret_cast<sockaddr*>(&a), &length) == 0 ? addressText(a) : "?";
}

Socket acceptFrom(const Socket& listener, std::string& peer) {
  sockaddr_storage from{};
  socklen_t length = sizeof from;
  Socket s(accept4(listener.fd(), reinterpret_cast<sockaddr*>(&from), &length, SOCK_CLOEXEC | SOCK_NONBLOCK));
  if (!s) return {};
  noDelay(s.fd());
  peer = addressText(from);
  return s;
}

Socket connectTo(const Endpoint& to, std::string& why) {
  Socket s(socket(to.address.ss_family, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!s) {
    why = errnoText("socket");
    return {};
  }
  if (connect(s.fd(), reinterpret_cast<const sockaddr*>(&to.address), to.length) != 0 || !nonBlocking(s.fd())) {
    why = errnoText("cannot connect");
    return {};
  }
  noDelay(s.fd());
  return s;
}

Connection::Read Connection::read(std::size_t max, std::string_view& got, std::string& why) {
  if (in_.size() < max) in_.resize(max);
  const ssize_t n = ::read(fd(), in_.data(), max);
  got = std::string_view(in_.data(), n > 0 ? static_cast<std::size_t>(n) : 0);
  if (n > 0) return Read::data;
  if (n == 0) return Read::closed;
  if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return Read::none;
  why = errnoText("read");
  return Read::failed;
}

bool Connection::queue(std::string_view bytes) {
  if (queued() + bytes.size() > maxQueued_) return false;
  if (sent_ > 0 && sent_ == out_.size()) {
    out_.clear();
    sent_ = 0;
  }
  out_.append(bytes);
  return true;
}

bool Connection::flush(std::string& why) {
  while (sent_ < out_.size()) {
    const ssize_t n = ::send(fd(), out_.data() + sent_, out_.size() - sent_, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) break;
      why = errnoText("write");
      return false;
    }
    sent_ += static_cast<std::size_t>(n);
  }
  // Drop what was sent once it is most of the buffer, so that a long feed does not grow it.
  if (sent_ > (std::size_t(1) << 20) && sent_ * 2 > out_.size()) {
    out_.erase(0, sent_);
    sent_ = 0;
  }
  return true;
}

}  // namespace xplpm::fpm
