// The reader of WebSocket frames, as a server and as a client, inside a message and outside, against a
// plain one; and frames that are written, against what reads them back.
#include "websocket/frame.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "support/exact_copy.h"
#include "support/plain_session.h"
#include "support/require.h"

namespace vel::fuzz {
namespace {

using Step = FrameReading::Step;

void compare(std::string_view bytes, FrameContext context) {
  const ExactCopy copy(bytes);
  const FrameReading reading = readFrame(copy.view(), context);
  const PlainFrameReading plain = readPlainFrame(bytes, context.isServer, context.isInMessage);
  require(textOf(reading.fault) == plain.fault, "the same fault");
  require((reading.step == Step::kWrong) == !plain.fault.empty(), "a fault is a step");
  if (!plain.fault.empty()) return;
  require(reading.needed == plain.needed, "as much is needed");
  require((reading.step == Step::kFrame) == plain.isWhole, "a frame is whole");
  if (!plain.isWhole) return;
  require(reading.opcode == plain.opcode && reading.isFinal == plain.isFinal, "the same kind");
  std::string payload(
      copy.view().substr(reading.needed - reading.payloadLength, reading.payloadLength));
  MaskingKey key{};
  if (reading.isMasked) {
    key = maskingKeyAt(copy.view().data() + reading.needed - payload.size() - key.size());
    mask(payload.data(), payload.data(), payload.size(), key);
  }
  require(payload == plain.payload, "the same payload");

  const FrameHead head = reading.isMasked ? FrameHead(reading.opcode, payload.size(), key)
                                          : FrameHead(reading.opcode, payload.size());
  std::string written(head.view());
  const size_t length = written.size();
  written += payload;
  if (reading.isMasked) mask(&written[length], payload.data(), payload.size(), key);
  const PlainFrameReading again = readPlainFrame(written, context.isServer, reading.opcode == 0);
  require(again.isWhole && again.payload == payload && again.needed == written.size(),
          "what is written is read");
}

}  // namespace
}  // namespace vel::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  for (const bool is_server : {true, false}) {
    for (const bool is_in_message : {true, false}) {
      const size_t heads = size < 16 ? size : 16;
      for (size_t length = 0; length < heads; ++length) {
        vel::fuzz::compare(bytes.substr(0, length), {is_server, is_in_message});
      }
      vel::fuzz::compare(bytes, {is_server, is_in_message});
    }
  }
  return 0;
}
