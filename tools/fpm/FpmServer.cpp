// The FPM server's loop.
#include "fpm/FpmServer.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>

namespace xplpm::fpm {

namespace {

// The self-pipe: a signal handler may only write a byte; the loop reads it with its other input.
int signalPipe[2] = {-1, -1};

void onSignal(int sig) {
  const int saved = errno;
  const char byte = static_cast<char>(sig);
  [[maybe_unused]] const ssize_t n = write(signalPipe[1], &byte, 1);
  errno = saved;
}

// A read of the peer takes at most this much before the loop looks at signals and timers again.
constexpr std::size_t kReadBytes = std::size_t(1) << 20;
constexpr int kReadsPerTurn = 4;

}  // namespace

// Frames to the handler's parser, counted.
class FpmServer::Frames final : public FrameSink {
 public:
  Frames(FpmServer& server, ServerHandler& handler) : server_(server), handler_(handler) {}
  void frame(std::uint64_t offset, std::string_view payload) override {
    ++server_.counts_.frames;
    server_.counts_.netlink += server_.parser_.parse(payload, offset, handler_);
  }
  void problem(const Problem& p) override { handler_.problem(p); }

 private:
  FpmServer& server_;
  ServerHandler& handler_;
};

void FpmServer::catchSignals() {
  if (signalPipe[0] >= 0) return;
  if (pipe2(signalPipe, O_CLOEXEC | O_NONBLOCK) != 0) return;
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sigemptyset(&sa.sa_mask);
  for (int sig : {SIGTERM, SIGINT, SIGUSR1, SIGUSR2}) sigaction(sig, &sa, nullptr);
  std::signal(SIGPIPE, SIG_IGN);
}

int FpmServer::run(ServerHandler& handler) {
  for (;;) {
    pollfd fds[3] = {{signalPipe[0], POLLIN, 0}, {listener_.fd(), POLLIN, 0}, {-1, 0, 0}};
    if (peer_) fds[2] = {peer_->fd(), static_cast<short>(POLLIN | (peer_->wantsWrite() ? POLLOUT : 0)), 0};
    const int ready = poll(fds, 3, handler.waitMs());
    if (ready < 0 && errno != EINTR) return SIGTERM;
    char sigs[16];
    const ssize_t caught = fds[0].revents ? read(signalPipe[0], sigs, sizeof sigs) : 0;
    for (ssize_t i = 0; i < caught; ++i) {
      if (sigs[i] == SIGTERM || sigs[i] == SIGINT) return sigs[i];
      handler.signal(sigs[i]);
    }
    if (fds[1].revents & POLLIN) accept(handler);
    if (peer_ && (fds[2].revents & (POLLIN | POLLHUP | POLLERR))) readPeer(handler);
    handler.tick();
    if (peer_) replyToPeer(handler);
    std::string why;
    if (peer_ && peer_->wantsWrite() && !peer_->flush(why)) drop(handler, why);
  }
}

void FpmServer::replyToPeer(ServerHandler& handler) {
  reply_.clear();
  handler.reply(reply_);
  if (!reply_.empty() && !peer_->queue(reply_)) counts_.replyDropped += reply_.size();
}

void FpmServer::accept(ServerHandler& handler) {
  std::string name;
  Socket s = acceptFrom(listener_, name);
  if (!s) return;
  if (peer_) drop(handler, "replaced by a new connection from " + name);
  peer_ = std::make_unique<Connection>(std::move(s));
  peerName_ = name;
  frames_ = FrameReader();
  ++counts_.connections;
  handler.connected(name);
}

void FpmServer::readPeer(ServerHandler& handler) {
  Frames frames(*this, handler);
  for (int turn = 0; turn < kReadsPerTurn && peer_; ++turn) {
    std::string why;
    std::string_view in;
    const Connection::Read r = peer_->read(kReadBytes, in, why);
    if (r == Connection::Read::none) break;
    if (r != Connection::Read::data) {
      drop(handler, r == Connection::Read::closed ? "closed by the peer" : why);
      return;
    }
    counts_.bytes += in.size();
    const bool followed = frames_.feed(in, frames);
    replyToPeer(handler);
    if (!followed) {
      drop(handler, "the stream cannot be followed");
      return;
    }
  }
}

void FpmServer::drop(ServerHandler& handler, const std::string& why) {
  peer_.reset();
  handler.disconnected(peerName_ + ": " + why);
}

}  // namespace xplpm::fpm
