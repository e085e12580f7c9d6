// Fuzz target: the FPM byte stream as `serve` reads it from zebra, frames cut from reads of any
// size and the rtnetlink messages inside them. The first input byte sets where the reads end, so
// the same stream also arrives in pieces. Whatever the bytes, the reader must not crash, must
// see the same frames, messages and problems however the reads are cut, must place every
// problem and message inside the stream, and must hand on only routes whose prefix length fits
// their family.
#include <cstdint>
#include <string>
#include <string_view>

#include "FuzzCheck.h"
#include "fpm/FpmWire.h"

namespace {

using namespace xplpm::fpm;

// Writes down everything the parser says, in order, as text: two readings agree when their
// texts do.
class Log : public FrameSink, public MessageSink {
 public:
  explicit Log(std::uint64_t streamBytes) : streamBytes_(streamBytes) {}
  void frame(std::uint64_t offset, std::string_view payload) override {
    xplpm_fuzz::require(offset + payload.size() <= streamBytes_, "a frame beyond the stream");
    text += "F" + std::to_string(offset) + ":" + std::to_string(payload.size()) + ";";
    parser_.parse(payload, offset, *this);
  }
  void route(const RouteMessage& m) override {
    xplpm_fuzz::require(m.offset < streamBytes_, "a route message beyond the stream");
    xplpm_fuzz::require(m.len <= (m.ipv6 ? 128 : 32), "a prefix longer than its family");
    text += "R" + std::to_string(m.offset) + (m.add ? "+" : "-") + std::to_string(m.len) + "/" +
            std::to_string(m.table) + "/" + std::to_string(m.paths.size()) + ";";
  }
  void nextHop(const NextHopMessage& m) override {
    xplpm_fuzz::require(m.offset < streamBytes_, "a next-hop message beyond the stream");
    text += "N" + std::to_string(m.offset) + (m.add ? "+" : "-") + std::to_string(m.id) + "/" +
            std::to_string(m.group.size()) + ";";
  }
  void ignored(std::uint64_t offset, const char* why) override {
    text += "I" + std::to_string(offset) + why + ";";
  }
  void problem(const Problem& p) override {
    xplpm_fuzz::require(p.offset <= streamBytes_, "a problem placed beyond the stream");
    xplpm_fuzz::requirePrintable(xplpm::InputError{"fpm", p.what});
    text += "P" + std::to_string(p.offset) + p.what + ";";
  }
  std::string text;

 private:
  std::uint64_t streamBytes_;
  NetlinkParser parser_;
};

std::string read(std::string_view stream, std::size_t piece) {
  Log log(stream.size());
  FrameReader reader;
  for (std::size_t at = 0; at < stream.size(); at += piece)
    if (!reader.feed(stream.substr(at, piece), log)) break;
  return log.text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::string_view stream(reinterpret_cast<const char*>(data) + 1, size - 1);
  const std::size_t piece = 1 + data[0] % 61;
  xplpm_fuzz::require(read(stream, stream.size() + 1) == read(stream, piece), "the reads' boundaries changed what was read");
  return 0;
}
