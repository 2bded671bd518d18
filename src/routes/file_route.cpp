// VELFileRoute: which file a request means, and whether it gets it. How a file is found without leaving the
// root is the file tree's, how it is sent the response's and the connection's.
#include "corvane/file_route.h"

#include <typeinfo>
#include <utility>

#include "corvane/responses.h"
#include "platform/file_tree.h"
#include "routes/matched_path.h"

struct VELFileRoute::Tree {
  explicit Tree(VELURL url) : root_url(std::move(url)), files(root_url.filePath()) {}
  VELURL locationOf(const std::string& path) const {
    return path.empty() ? root_url : root_url.URLByAppendingPathComponent(path);
  }

  const VELURL root_url;
  const vel::FileTree files;
};

// What was found, and where, relative to the root.
struct VELFileRoute::Target {
  std::string path;
  vel::FoundFile file;
};

namespace {

constexpr std::string_view kDefaultIndexName = "index.html";

/// `filePath` as a path relative to `root`; none when it is not below it.
std::optional<std::string> pathBelow(const std::string& root, std::string filePath) {
  if (filePath == root) return std::string();
  std::string prefix = root;
  if (!prefix.ends_with('/')) prefix += '/';
  if (!filePath.starts_with(prefix)) return std::nullopt;
  return filePath.substr(prefix.size());
}

}  // namespace

VELFileRouteDelegate::~VELFileRouteDelegate() = default;

void VELFileRouteDelegate::fileRouteDecideResponseForFileAtURL(
    VELFileRoute& /*fileRoute*/, const VELURL& /*fileURL*/, std::shared_ptr<VELRequest> /*request*/,
    std::shared_ptr<VELResponse> suggestedResponse, VELResponseHandler responseHandler) {
  responseHandler(std::move(suggestedResponse));
}

std::shared_ptr<VELFileRoute> VELFileRoute::routeWithPath(std::string_view path,
                                                          const VELURL& rootURL) {
  const bool caseSensitive = vel::hasCaseSensitiveNames(rootURL.filePath()).value_or(false);
  auto route = std::make_shared<VELFileRoute>(path, !caseSensitive);
  route->setRootURL(rootURL);
  return route;
}

VELFileRoute::~VELFileRoute() = default;

void VELFileRoute::evaluateWithRequest(std::shared_ptr<VELRequest> request,
                                       VELResponseHandler responseHandler) {
  const std::string method = request->method();
  if (method != "GET" && method != "HEAD") {
    return responseHandler(std::make_shared<VELMethodNotSupportedResponse>());
  }
  const std::shared_ptr<const Tree> served = tree();
  if (!served) return responseHandler(std::make_shared<VELNotFoundResponse>());
  std::string path = vel::pathBehindMatch(*request);
  std::optional<vel::FoundFile> file = served->files.find(path);
  if (!file || !file->is_readable) {
    return responseHandler(std::make_shared<VELNotFoundResponse>());
  }
  // Who has replaced the decision gets to know the location only; the rest looks no second time.
  if (typeid(*this) != typeid(VELFileRoute)) {
    return decideResponseForFileAtURL(served->locationOf(path), std::move(request),
                                      std::move(responseHandler));
  }
  decide(*served, {std::move(path), std::move(*file)}, std::move(request),
         std::move(responseHandler));
}

void VELFileRoute::decideResponseForFileAtURL(const VELURL& fileURL,
                                              std::shared_ptr<VELRequest> request,
                                              VELResponseHandler responseHandler) {
  const std::shared_ptr<const Tree> served = tree();
  std::optional<std::string> path;
  std::optional<vel::FoundFile> file;
  if (served) path = pathBelow(served->root_url.filePath(), fileURL.filePath());
  if (path) file = served->files.find(*path);
  if (!file || !file->is_readable) {
    return responseHandler(std::make_shared<VELNotFoundResponse>());
  }
  decide(*served, {std::move(*path), std::move(*file)}, std::move(request),
         std::move(responseHandler));
}

void VELFileRoute::decide(const Tree& tree, Target target, std::shared_ptr<VELRequest> request,
                          VELResponseHandler responseHandler) {
  std::shared_ptr<VELResponse> suggestion = suggestionFor(tree, &target);
  if ((target.file.mode & allowed_permissions_) == 0) {
    suggestion = std::make_shared<VELForbiddenResponse>();
  }
  if (const std::shared_ptr<VELFileRouteDelegate> reviewer = delegate()) {
    return reviewer->fileRouteDecideResponseForFileAtURL(*this, tree.locationOf(target.path),
                                                         std::move(request), std::move(suggestion),
                                                         std::move(responseHandler));
  }
  responseHandler(std::move(suggestion));
}

// Goes on from a directory to its index file.
std::shared_ptr<VELResponse> VELFileRoute::suggestionFor(const Tree& tree, Target* target) const {
  const auto responseWithFile = [&](uint64_t size) {
    return VELFileResponse::responseWithOpenFile(target->file.file, size, tree.root_url,
                                                 target->path);
  };
  switch (target->file.kind) {
    case vel::FoundFile::Kind::kRegular:
      return responseWithFile(target->file.size);
    case vel::FoundFile::Kind::kOther:
      return std::make_shared<VELNotFoundResponse>();
    case vel::FoundFile::Kind::kDirectory:
      break;
  }
  for (const std::string& name : directoryIndexNames()) {
    std::string path = target->path.empty() ? name : target->path + "/" + name;
    std::optional<vel::FoundFile> index = tree.files.find(path);
    if (!index || !index->is_readable) continue;
    *target = {std::move(path), std::move(*index)};
    // An index that is no file is one without bytes.
    const bool hasBytes = target->file.kind == vel::FoundFile::Kind::kRegular;
    return responseWithFile(hasBytes ? target->file.size : 0);
  }
  return std::make_shared<VELForbiddenResponse>();
}

std::shared_ptr<const VELFileRoute::Tree> VELFileRoute::tree() const {
  const std::lock_guard lock(mutex_);
  return tree_;
}

std::optional<VELURL> VELFileRoute::rootURL() const {
  const std::shared_ptr<const Tree> served = tree();
  if (!served) return std::nullopt;
  return served->root_url;
}

void VELFileRoute::setRootURL(std::optional<VELURL> rootURL) {
  std::shared_ptr<const Tree> served;
  if (rootURL) served = std::make_shared<const Tree>(std::move(*rootURL));
  // What was there before goes away after the lock.
  const std::lock_guard lock(mutex_);
  tree_.swap(served);
}

std::vector<std::string> VELFileRoute::directoryIndexNames() const {
  IndexNames names;
  {
    const std::lock_guard lock(mutex_);
    names = index_names_;
  }
  return names ? *names : std::vector<std::string>{std::string(kDefaultIndexName)};
}

void VELFileRoute::setDirectoryIndexNames(std::vector<std::string> directoryIndexNames) {
  auto names = std::make_shared<const std::vector<std::string>>(std::move(directoryIndexNames));
  const std::lock_guard lock(mutex_);
  index_names_.swap(names);
}

std::shared_ptr<VELFileRouteDelegate> VELFileRoute::delegate() const {
  const std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void VELFileRoute::setDelegate(std::weak_ptr<VELFileRouteDelegate> delegate) {
  const std::lock_guard lock(mutex_);
  delegate_.swap(delegate);
}
