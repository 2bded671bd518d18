#include "support/plain_session.h"

#include "support/plain_text.h"

namespace vel::fuzz {
namespace {

bool isControl(int opcode) { return opcode >= 8 && opcode <= 10; }

std::string closePayload(unsigned code, std::string_view reason) {
  std::string payload;
  payload += static_cast<char>(code >> 8);
  payload += static_cast<char>(code);
  payload += reason;
  return payload;
}

void end(PlainSession& session, unsigned code, const std::string& reason,
         const std::string& payload) {
  session.sent.push_back("8 " + payload);
  session.events.push_back("closed VELWebSocket " + std::to_string(code) +
                           (reason.empty() ? "" : " " + reason));
}

void refuse(PlainSession& session, unsigned code, const std::string& reason) {
  end(session, code, reason, closePayload(code, reason));
}

// False once the session has ended.
bool takeMessage(PlainSession& session, bool is_text, const std::string& payload) {
  session.events.push_back((is_text ? "text " : "binary ") + payload);
  if (!payload.starts_with("c")) {
    session.sent.push_back((is_text ? "1 " : "2 ") + payload);
    return true;
  }
  end(session, 4000, "", closePayload(4000, ""));
  return false;
}

void takeClose(PlainSession& session, const std::string& payload) {
  if (payload.size() == 1) {
    return refuse(session, 1002, "Close frame payload must be at least 2 bytes");
  }
  const std::string reason = payload.size() > 2 ? payload.substr(2) : std::string();
  if (!isPlainlyUTF8(reason)) return refuse(session, 1002, "Close reason MUST be valid UTF-8");
  const unsigned code =
      payload.empty() ? 1005
                      : static_cast<uint8_t>(payload[0]) * 256U + static_cast<uint8_t>(payload[1]);
  end(session, code, reason, payload);
}

// False once the session has ended.
bool takeFrame(PlainSession& session, bool& is_in_message, const PlainFrameReading& frame) {
  if (!isControl(frame.opcode)) is_in_message = !frame.isFinal;
  if (!frame.isFinal) return true;
  if (frame.opcode == 9) session.sent.push_back("10 " + frame.payload);
  if (frame.opcode == 9 || frame.opcode == 10) return true;
  if (frame.opcode == 2) return takeMessage(session, false, frame.payload);
  if (frame.opcode == 1 && isPlainlyUTF8(frame.payload)) {
    return takeMessage(session, true, frame.payload);
  }
  if (frame.opcode == 1) {
    refuse(session, 1007, "Invalid UTF-8 text frame data");
  } else if (frame.opcode == 8) {
    takeClose(session, frame.payload);
  } else {
    refuse(session, 1002, "Unexpected opcode: " + std::to_string(frame.opcode));
  }
  return false;
}

}  // namespace

PlainFrameReading readPlainFrame(std::string_view bytes, bool isServer, bool isInMessage) {
  PlainFrameReading reading;
  const auto at = [&](uint64_t index) { return static_cast<uint8_t>(bytes[index]); };
  if (bytes.size() < 2) return reading;
  reading.isFinal = at(0) >= 128;
  reading.opcode = at(0) % 16;
  const bool is_masked = at(1) >= 128;
  if (is_masked && !isServer) {
    reading.fault = "All data frames sent to a client must not be masked";
  } else if (!is_masked && isServer) {
    reading.fault = "All data frames sent from a client must be masked";
  } else if (!isControl(reading.opcode) && reading.opcode != 0 && isInMessage) {
    reading.fault = "All data frames after the initial data frame must have opcode 0";
  } else if (reading.opcode == 0 && !isInMessage) {
    reading.fault = "Received data frame without an opcode";
  } else if (isControl(reading.opcode) && !reading.isFinal) {
    reading.fault = "Control frames cannot be fragmented";
  }
  if (!reading.fault.empty()) return reading;
  uint64_t length = at(1) % 128;
  const unsigned more = length == 126 ? 2 : length == 127 ? 8 : 0;
  reading.needed += more;
  if (bytes.size() < reading.needed) return reading;
  if (more > 0) length = 0;
  for (unsigned i = 0; i < more; ++i) length = length * 256 + at(2 + i);
  const uint64_t key = reading.needed;
  if (is_masked) reading.needed += 4;
  if (bytes.size() < reading.needed) return reading;
  const uint64_t begin = reading.needed;
  // The sum is capped.
  reading.needed = length > UINT64_MAX - begin ? UINT64_MAX : begin + length;
  reading.isWhole = bytes.size() >= reading.needed;
  for (uint64_t i = 0; reading.isWhole && i < length; ++i) {
    reading.payload += static_cast<char>(at(begin + i) ^ (is_masked ? at(key + i % 4) : 0));
  }
  return reading;
}

PlainSession plainSession(bool isServer, std::string_view bytes) {
  PlainSession session;
  bool is_in_message = false;
  while (true) {
    const PlainFrameReading frame = readPlainFrame(bytes, isServer, is_in_message);
    if (!frame.fault.empty()) {
      refuse(session, 1002, std::string(frame.fault));
      return session;
    }
    if (!frame.isWhole) {
      session.events.push_back("closed VELWebSocket 1006");
      return session;
    }
    bytes.remove_prefix(frame.needed);
    if (!takeFrame(session, is_in_message, frame)) return session;
  }
}

}  // namespace vel::fuzz
