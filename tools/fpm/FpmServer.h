// The FPM server's event loop, over POSIX poll and signals: one peer at a time (a
// routing stack that connects again replaces its old connection, whose table it
// then resends), its frames cut and parsed into a handler, what the handler has to
// say back sent as the peer takes it, timers, and signals turned into events.
// SIGTERM and SIGINT end the loop; SIGUSR1 and SIGUSR2 are handed to the handler.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "fpm/FpmSocket.h"
#include "fpm/FpmWire.h"

namespace xplpm::fpm {

class ServerHandler : public MessageSink {
 public:
  virtual void connected(const std::string& peer) = 0;
  virtual void disconnected(const std::string& why) = 0;
  // SIGUSR1 or SIGUSR2.
  virtual void signal(int sig) = 0;
  // After each read and each turn of the loop, while a peer is connected: what to send back
  // (appended to `out`).
  virtual void reply(std::string& out) = 0;
  // How long the loop may wait for input before calling tick(); negative: as long as it likes.
  virtual int waitMs() = 0;
  virtual void tick() = 0;
};

struct ServerCounts {
  std::uint64_t bytes = 0, frames = 0, netlink = 0, connections = 0;
  std::uint64_t replyDropped = 0;  // reply bytes dropped for a peer that does not read
};

class FpmServer {
 public:
  // Serves on a listening socket (see listenOn).
  explicit FpmServer(Socket listener) : listener_(std::move(listener)) {}

  // Routes SIGTERM, SIGINT, SIGUSR1 and SIGUSR2 to the loop. Once per process, before run().
  static void catchSignals();
  // Runs until SIGTERM or SIGINT; returns the signal.
  int run(ServerHandler& handler);
  const ServerCounts& counts() const { return counts_; }

 private:
  class Frames;
  void accept(ServerHandler& handler);
  // Reads what the peer sent, a bounded amount, and hands it to the handler.
  void readPeer(ServerHandler& handler);
  void replyToPeer(ServerHandler& handler);
  void drop(ServerHandler& handler, const std::string& why);

  Socket listener_;
  std::unique_ptr<Connection> peer_;
  std::string peerName_;
  FrameReader frames_;
  NetlinkParser parser_;
  ServerCounts counts_;
  std::string reply_;
};

}  // namespace xplpm::fpm
