// RequestBody: one body on its way in, its framing and its store together.
#pragma once

#include <cstdint>
#include <string_view>
#include <variant>

#include "corvane/limits.h"
#include "corvane/uuid.h"
#include "http/body_reader.h"
#include "http/body_store.h"
#include "http/head_reader.h"

namespace vel {

/// Receives one body.
/// Owner:   the request's exchange, from the end of the head on.
class RequestBody {
 public:
  /// `identifier` names the file of a large body. Keeps a reference to `limits`.
  RequestBody(const BodyFraming& framing, uint64_t headLines, const VELUUID& identifier,
              const VELLimits& limits);

  /// The first read.
  BodyStep begin() const;
  /// The next read, after the one of `tag` brought `bytes`. When the body is complete, its file has
  /// been closed.
  BodyStep didRead(std::string_view bytes, int64_t tag);

  BodyStore& store() noexcept { return store_; }

 private:
  std::variant<LengthBodyReader, ChunkedBodyReader> reader_;
  BodyStore store_;
};

}  // namespace vel
