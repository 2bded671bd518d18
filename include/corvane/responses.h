// The kinds of responses: bytes in memory, streams and files, redirects, and answers that are only
// a status.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "corvane/data.h"
#include "corvane/export.h"
#include "corvane/input_stream.h"
#include "corvane/response.h"
#include "corvane/url.h"

namespace vel {
class FileDescriptor;
}

/// A body of bytes in memory.
///
/// ```cpp
/// auto response = std::make_shared<VELDataResponse>();
/// response->setData(VELData(std::string("Hello")));
/// response->setContentLength(5);
/// response->setStatus(200);
/// VELData piece = response->readDataOfLength(524288);
/// ```
class CORVANE_EXPORT VELDataResponse : public VELResponse {
 public:
  VELDataResponse();
  ~VELDataResponse() override;

  const VELData& data() const { return data_; }
  void setData(VELData data) { data_ = std::move(data); }

  /// Shape:   a copy shares the bytes and reads them from their beginning.
  std::shared_ptr<VELResponse> copy() const override;
  /// Hands out the bytes in order. `offset` does not move it: a range is answered with the bytes
  /// from the present position.
  VELData readDataOfLength(uint64_t length) override;
  bool isFinished() const override;

 private:
  VELData data_;
  // Bytes handed out.
  size_t read_offset_ = 0;
};

/// A body that a stream supplies. What is read from the stream is not delivered: a client gets the
/// head and no body.
/// Owner:   holds the stream, which nobody else may read.
class CORVANE_EXPORT VELStreamResponse : public VELResponse {
 public:
  VELStreamResponse();
  ~VELStreamResponse() override;

  const std::shared_ptr<VELInputStream>& stream() const { return stream_; }
  void setStream(std::shared_ptr<VELInputStream> stream) { stream_ = std::move(stream); }

  /// Errors:  always raises an internal-inconsistency exception.
  std::shared_ptr<VELResponse> copy() const override;
  /// Opens the stream, then reads from it; the piece is always empty.
  VELData readDataOfLength(uint64_t length) override;
  /// True once the stream is at its end, closed or has failed.
  bool isFinished() const override;
  /// Closes the stream.
  void connectionDidClose() override;

 private:
  std::shared_ptr<VELInputStream> stream_;
};

/// A body that a file holds. A piece stands for a part of the open file, which goes out without a way
/// through this program's memory where the system can do that.
/// Errors:  a file that cannot be opened or read gives no bytes, and nothing is reported. One that becomes
///          shorter while it is sent gives fewer bytes than were announced, which the client is not told:
///          on a connection that stays open it takes the next answer for the rest.
class CORVANE_EXPORT VELFileResponse : public VELResponse {
 public:
  VELFileResponse();
  ~VELFileResponse() override;

  const VELURL& fileURL() const;
  void setFileURL(VELURL fileURL);

  /// Shape:   a copy opens the file anew, unless it is open: then both read the same one, each from its own
  ///          position.
  std::shared_ptr<VELResponse> copy() const override;
  /// Moves the next read, also after the end.
  void setOffset(uint64_t offset) override;
  /// Opens the file at the first read; what is added to it from then on is not sent.
  VELData readDataOfLength(uint64_t length) override;
  /// True once a read brought less than was asked for: a file whose size is a multiple of the piece
  /// ends with an empty read.
  bool isFinished() const override;
  /// Closes the file; a later read opens it anew at `offset`.
  void connectionDidClose() override;

 private:
  friend class VELFileRoute;
  // Status 200 for a file that is open for reading, of which `size` bytes are sent. What stands at `path`
  // below `directory` is not looked at; the media type is that of the name.
  static std::shared_ptr<VELFileResponse> responseWithOpenFile(
      std::shared_ptr<const vel::FileDescriptor> file, uint64_t size, const VELURL& directory,
      std::string path);
  bool openFile();

  // Where the file is: `path_` below it, until somebody asks for the whole.
  mutable VELURL file_url_;
  mutable std::string path_;
  // None before the first read.
  std::shared_ptr<const vel::FileDescriptor> file_;
  // When the file was opened. 0 also for files that the kernel makes up as they are read.
  uint64_t size_ = 0;
  uint64_t position_ = 0;
  bool at_end_ = false;
};

namespace vel {
/// A head with a fixed status and no body. `setStatus` is ignored.
class CORVANE_EXPORT StatusResponse : public VELResponse {
 public:
  ~StatusResponse() override;
  void setStatus(uint64_t status) override;
  /// Always empty.
  VELData readDataOfLength(uint64_t length) override;
  /// Always true.
  bool isFinished() const override;

 protected:
  explicit StatusResponse(uint64_t status);
};
}  // namespace vel

/// 302 Found.
class CORVANE_EXPORT VELRedirectResponse : public vel::StatusResponse {
 public:
  /// A redirect without a "Location" field, for the host to set.
  VELRedirectResponse();
  /// Errors:  always raises an unknown-key exception that names "Location": use the other
  ///          constructor.
  explicit VELRedirectResponse(std::string path);
  ~VELRedirectResponse() override;

  /// Default: none. It is not sent.
  const std::optional<std::string>& path() const { return path_; }
  void setPath(std::optional<std::string> path) { path_ = std::move(path); }
  std::shared_ptr<VELResponse> copy() const override;

 private:
  std::optional<std::string> path_;
};

/// 301 Moved Permanently.
class CORVANE_EXPORT VELPermanentRedirectResponse : public vel::StatusResponse {
 public:
  /// A redirect without a "Location" field, for the host to set.
  VELPermanentRedirectResponse();
  /// Errors:  always raises an unknown-key exception that names "Location": use the other
  ///          constructor.
  explicit VELPermanentRedirectResponse(std::string path);
  ~VELPermanentRedirectResponse() override;

  /// Default: none. It is not sent.
  const std::optional<std::string>& path() const { return path_; }
  void setPath(std::optional<std::string> path) { path_ = std::move(path); }
  std::shared_ptr<VELResponse> copy() const override;

 private:
  std::optional<std::string> path_;
};

/// 400 Bad Request, with "Connection: close". Whether the connection closes is decided by the
/// request.
class CORVANE_EXPORT VELBadRequestResponse : public vel::StatusResponse {
 public:
  VELBadRequestResponse();
  ~VELBadRequestResponse() override;
  std::shared_ptr<VELResponse> copy() const override;
};

/// 401 Unauthorized. The challenge is the host's to add.
class CORVANE_EXPORT VELNotAuthorizedResponse : public vel::StatusResponse {
 public:
  VELNotAuthorizedResponse();
  ~VELNotAuthorizedResponse() override;
  std::shared_ptr<VELResponse> copy() const override;
};

/// 403 Forbidden.
class CORVANE_EXPORT VELForbiddenResponse : public vel::StatusResponse {
 public:
  VELForbiddenResponse();
  ~VELForbiddenResponse() override;
  std::shared_ptr<VELResponse> copy() const override;
};

/// 404 Not Found.
class CORVANE_EXPORT VELNotFoundResponse : public vel::StatusResponse {
 public:
  VELNotFoundResponse();
  ~VELNotFoundResponse() override;
  std::shared_ptr<VELResponse> copy() const override;
};

/// 405 Method Not Allowed, with "Connection: close". Whether the connection closes is decided by
/// the request.
class CORVANE_EXPORT VELMethodNotSupportedResponse : public vel::StatusResponse {
 public:
  VELMethodNotSupportedResponse();
  ~VELMethodNotSupportedResponse() override;
  std::shared_ptr<VELResponse> copy() const override;
};

/// Tells the connection that the route has taken its socket over and answered by itself: the
/// connection ends, and neither writes to the socket nor closes it. Status 101.
class CORVANE_EXPORT VELSocketYieldResponse : public vel::StatusResponse {
 public:
  VELSocketYieldResponse();
  ~VELSocketYieldResponse() override;
  std::shared_ptr<VELResponse> copy() const override;
};
