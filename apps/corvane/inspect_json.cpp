// Each member of the object is one line of inspectJSON; how the values are written stands above it.
#include "inspect_json.h"

#include <optional>
#include <string_view>

#include "corvane/connection.h"
#include "corvane/dictionary.h"
#include "corvane/digest.h"
#include "corvane/regular_expression.h"
#include "json.h"

namespace {

/// Writes the members of one object.
class ObjectWriter {
 public:
  explicit ObjectWriter(std::string& json) : json_(json) { json_ += '{'; }

  void addText(std::string_view name, std::string_view value) {
    addName(name);
    appendJSONString(json_, value);
  }
  void addOptionalText(std::string_view name, const std::optional<std::string>& value) {
    value ? addText(name, *value) : addLiteral(name, "null");
  }
  /// Adds a value that is JSON already.
  void addLiteral(std::string_view name, std::string_view value) {
    addName(name);
    json_ += value;
  }
  void addBoolean(std::string_view name, bool value) { addLiteral(name, value ? "true" : "false"); }
  void end() { json_ += '}'; }

 private:
  void addName(std::string_view name) {
    if (!is_first_) json_ += ", ";
    is_first_ = false;
    appendJSONString(json_, name);
    json_ += ": ";
  }

  std::string& json_;
  bool is_first_ = true;
};

std::string dictionaryJSON(const VELDictionary& dictionary) {
  std::string json;
  ObjectWriter object(json);
  for (const auto& [name, value] : dictionary) object.addText(name, value);
  object.end();
  return json;
}

std::string dictionaryJSON(const std::optional<VELDictionary>& dictionary) {
  return dictionary ? dictionaryJSON(*dictionary) : "null";
}

/// The whole match and the groups as parts of the path; a group that took no part is null.
std::string matchJSON(const std::optional<VELTextCheckingResult>& match, std::string_view path) {
  std::string json = "[";
  for (size_t index = 0; match && index < match->numberOfRanges(); ++index) {
    if (index > 0) json += ", ";
    const VELTextRange range = match->rangeAtIndex(index);
    if (range.location == VELNotFound || range.location > path.size()) {
      json += "null";
    } else {
      appendJSONString(json, path.substr(range.location, range.length));
    }
  }
  return json + "]";
}

std::string_view bodyKind(const VELRequest& request) {
  if (request.bodyFileURL()) return "file";
  return request.bodyData() ? "memory" : "none";
}

/// The digest of the body; that of no bytes when there is none, nothing when its file is unreadable.
std::optional<std::string> bodyDigest(const VELRequest& request) {
  if (const auto file = request.bodyFileURL()) return VELSHA256DigestOfFile(file->filePath());
  const auto data = request.bodyData();
  return VELSHA256Digest(data ? data->view() : std::string_view());
}

}  // namespace

std::string inspectJSON(const VELRequest& request) {
  const std::string path = request.path();
  const std::optional<VELURL> url = request.URL();
  const auto connection = request.connection();
  std::string json;
  ObjectWriter object(json);
  object.addText("method", request.method());
  object.addText("url", url ? url->absoluteString() : std::string());
  object.addText("path", path);
  object.addLiteral("match", matchJSON(request.textCheckingResult(), path));
  object.addLiteral("headers", dictionaryJSON(request.headers()));
  object.addLiteral("GETParameters", dictionaryJSON(request.GETParameters()));
  object.addLiteral("POSTParameters", dictionaryJSON(request.POSTParameters()));
  object.addOptionalText("contentType", request.contentType());
  object.addLiteral("contentLength", std::to_string(request.contentLength()));
  object.addText("body", bodyKind(request));
  object.addOptionalText("bodySHA256", bodyDigest(request));
  object.addBoolean("secure", request.isSecure());
  object.addBoolean("connectionSecure", connection && connection->isSecure());
  object.addText("identifier", request.identifier().UUIDString());
  object.end();
  return json;
}
