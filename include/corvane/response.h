// VELResponse: what a route answers with, and the contract by which a connection reads its body.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "corvane/data.h"
#include "corvane/dictionary.h"
#include "corvane/export.h"
#include "corvane/input_stream.h"
#include "corvane/text_encoding.h"
#include "corvane/url.h"

/// One field of a response head.
struct VELHeaderField {
  VELHeaderField(std::string_view fieldName, std::string&& fieldValue)
      : name(fieldName), value(std::move(fieldValue)) {}

  std::string name;
  std::string value;
};

/// Base of all responses, and itself an answer without a body.
///
/// ```cpp
/// auto response = VELResponse::responseWithString("Hello", VELUTF8StringEncoding, 200,
///                                                "text/plain; charset=utf-8");
/// response->setValueForHeader("no-store", "Cache-Control");
/// uint64_t length = response->contentLength();
/// ```
/// Owner:   one answer each; the connection holds it until the answer is sent.
/// Queue:   after it is handed over, the connection's only.
class CORVANE_EXPORT VELResponse {
 public:
  VELResponse();
  virtual ~VELResponse();

  /// Makes a `VELDataResponse` that holds `data`, with a "Content-Length" field of its own.
  static std::shared_ptr<VELResponse> responseWithData(
      VELData data, uint64_t status, std::optional<std::string> contentType = std::nullopt);
  /// The same for text.
  /// Shape:   `string` is UTF-8; `encoding` is a code of corvane/text_encoding.h.
  /// Errors:  text that cannot be encoded, and any other encoding, give an empty body.
  static std::shared_ptr<VELResponse> responseWithString(
      std::string_view string, unsigned encoding, uint64_t status,
      std::optional<std::string> contentType = std::nullopt);
  /// Makes a `VELFileResponse`. A file whose size cannot be told has a `contentLength` of 0.
  /// Default: the content type that the library's table has for the file's extension (in any letter
  ///          case when the file exists), else the one of the system's media types file, or none.
  static std::shared_ptr<VELResponse> responseWithFileURL(
      const VELURL& fileURL, uint64_t status,
      std::optional<std::string> contentType = std::nullopt);
  /// Makes a `VELStreamResponse`.
  static std::shared_ptr<VELResponse> responseWithStream(
      std::shared_ptr<VELInputStream> stream, uint64_t contentLength, uint64_t status,
      std::optional<std::string> contentType = std::nullopt);

  /// A new response of the same class with the same values; a body starts from its beginning.
  /// Errors:  a stream response raises an internal-inconsistency exception.
  virtual std::shared_ptr<VELResponse> copy() const;

  /// Reads the next piece of the body.
  /// Shape:   at most `length` bytes; empty means that no more is available.
  /// Errors:  the base raises "Subclasses must override readDataOfLength:".
  /// Queue:   the connection's.
  virtual VELData readDataOfLength(uint64_t length);
  /// Whether the piece just read was the last.
  /// Errors:  the base raises "Subclasses must override isFinished".
  virtual bool isFinished() const;
  /// The connection is done with the response, or has died.
  virtual void connectionDidClose();

  virtual uint64_t status() const { return status_; }
  virtual void setStatus(uint64_t status) { status_ = status; }
  const std::optional<std::string>& statusDescription() const { return status_description_; }
  void setStatusDescription(std::optional<std::string> description) {
    status_description_ = std::move(description);
  }
  uint64_t contentLength() const { return content_length_; }
  void setContentLength(uint64_t length) { content_length_ = length; }
  bool isChunked() const { return chunked_; }
  void setChunked(bool chunked) { chunked_ = chunked; }
  uint64_t offset() const { return offset_; }
  virtual void setOffset(uint64_t offset) { offset_ = offset; }

  /// A snapshot of the fields. Names are compared exactly.
  VELDictionary headers() const;
  void setHeaders(const VELDictionary& headers);
  /// The fields in the order in which they were first set, which is the order on the wire.
  /// Owner:   the response; the next change of a field ends the result.
  std::span<const VELHeaderField> headerFields() const { return header_fields_.all(); }
  std::optional<std::string> valueForHeader(std::string_view name) const;
  /// No value removes the field.
  void setValueForHeader(std::optional<std::string> value, std::string_view name);
  void removeValueForHeader(std::string_view name);
  std::optional<std::string> operator[](std::string_view name) const {
    return valueForHeader(name);
  }
  void setObjectForKeyedSubscript(std::optional<std::string> value, std::string_view name) {
    setValueForHeader(std::move(value), name);
  }
  std::optional<std::string> contentType() const { return valueForHeader("Content-Type"); }
  void setContentType(std::optional<std::string> contentType) {
    setValueForHeader(std::move(contentType), "Content-Type");
  }

  /// One line for logs: the class, the address and the status.
  virtual std::string description() const;

  VELResponse(const VELResponse&) = delete;
  VELResponse& operator=(const VELResponse&) = delete;

 protected:
  /// What `copy` of a subclass does to its new object first: every property of this class, the
  /// status through `setStatus`.
  void copyPropertiesTo(VELResponse& copy) const;

 private:
  /// Fields in their order. The first few are kept in place: most answers have no more.
  class Fields {
   public:
    Fields() = default;
    Fields(const Fields&) = delete;
    Fields& operator=(const Fields&) = delete;
    ~Fields() { clear(); }

    std::span<VELHeaderField> all() { return {places(), count_}; }
    std::span<const VELHeaderField> all() const { return {places(), count_}; }
    /// None when there is no field of that name.
    VELHeaderField* find(std::string_view name);
    void add(std::string_view name, std::string&& value);
    void remove(const VELHeaderField& field);
    void clear();

   private:
    static constexpr size_t kInPlace = 4;

    VELHeaderField* places() { return more_.empty() ? inPlace() : more_.data(); }
    const VELHeaderField* places() const {
      return more_.empty() ? const_cast<Fields*>(this)->inPlace() : more_.data();
    }
    VELHeaderField* inPlace() { return reinterpret_cast<VELHeaderField*>(in_place_); }

    size_t count_ = 0;
    // All of them, once there are more than fit in place.
    std::vector<VELHeaderField> more_;
    alignas(VELHeaderField) std::byte in_place_[kInPlace * sizeof(VELHeaderField)];
  };

  Fields header_fields_;
  std::optional<std::string> status_description_;
  uint64_t status_ = 0;
  uint64_t content_length_ = 0;
  uint64_t offset_ = 0;
  bool chunked_ = false;
};
