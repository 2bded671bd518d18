// The class operations of VELResponse, which make the kinds that have a body.
#include <array>
#include <charconv>

#include "corvane/response.h"
#include "corvane/responses.h"
#include "platform/ascii.h"
#include "platform/file.h"
#include "platform/media_types.h"
#include "platform/recycled.h"
#include "platform/url_parts.h"
#include "platform/utf8.h"
#include "responses/content_types.h"
#include "responses/text_encoding.h"

namespace {

std::string decimalText(uint64_t number) {
  std::array<char, 20> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  return {digits.data(), end};
}

/// What is known about a file of this kind, else what the table says about the name as it stands, else
/// nothing: an unknown file is not announced as application/octet-stream. The table's own answers stand
/// before those of the system, which differ from one to the next.
std::optional<std::string> contentTypeOfFile(std::string_view extension, bool exists) {
  if (extension.empty()) return std::nullopt;
  std::optional<std::string_view> type = vel::contentTypeForFileExtension(extension);
  if (exists && !type) type = vel::contentTypeForFileExtension(vel::lowercased(extension));
  if (exists && !type) type = vel::MediaTypes::system().typeForExtension(extension);
  if (!type) return std::nullopt;
  return std::string(*type);
}

}  // namespace

std::shared_ptr<VELResponse> VELResponse::responseWithData(VELData data, uint64_t status,
                                                           std::optional<std::string> contentType) {
  const std::shared_ptr<VELDataResponse> response = vel::makeRecycled<VELDataResponse>();
  VELResponse& base = *response;
  base.status_ = status;
  base.content_length_ = data.length();
  base.header_fields_.add("Content-Length", decimalText(data.length()));
  if (contentType) base.header_fields_.add("Content-Type", std::move(*contentType));
  response->setData(std::move(data));
  return response;
}

std::shared_ptr<VELResponse> VELResponse::responseWithString(
    std::string_view string, unsigned encoding, uint64_t status,
    std::optional<std::string> contentType) {
  if (encoding == VELUTF8StringEncoding && vel::isValidUTF8(string)) {
    return responseWithData(VELData(std::string(string)), status, std::move(contentType));
  }
  std::optional<std::string> bytes = vel::encodedText(string, encoding);
  return responseWithData(bytes ? VELData(std::move(*bytes)) : VELData(), status,
                          std::move(contentType));
}

std::shared_ptr<VELResponse> VELResponse::responseWithFileURL(
    const VELURL& fileURL, uint64_t status, std::optional<std::string> contentType) {
  auto response = std::make_shared<VELFileResponse>();
  response->setFileURL(fileURL);
  response->setStatus(status);
  const std::optional<uint64_t> size = vel::fileSize(fileURL.filePath());
  if (size) response->setContentLength(*size);
  if (!contentType) contentType = contentTypeOfFile(fileURL.pathExtension(), size.has_value());
  if (contentType) response->setContentType(std::move(contentType));
  return response;
}

std::shared_ptr<VELFileResponse> VELFileResponse::responseWithOpenFile(
    std::shared_ptr<const vel::FileDescriptor> file, uint64_t size, const VELURL& directory,
    std::string path) {
  const std::shared_ptr<VELFileResponse> response = vel::makeRecycled<VELFileResponse>();
  response->file_ = std::move(file);
  response->size_ = size;
  response->setStatus(200);
  response->setContentLength(size);
  std::optional<std::string> contentType = contentTypeOfFile(vel::pathExtension(path), true);
  if (contentType) response->setContentType(std::move(contentType));
  response->file_url_ = directory;
  response->path_ = std::move(path);
  return response;
}

std::shared_ptr<VELResponse> VELResponse::responseWithStream(
    std::shared_ptr<VELInputStream> stream, uint64_t contentLength, uint64_t status,
    std::optional<std::string> contentType) {
  auto response = std::make_shared<VELStreamResponse>();
  response->setStream(std::move(stream));
  response->setStatus(status);
  response->setContentLength(contentLength);
  if (contentType) response->setContentType(std::move(contentType));
  return response;
}
