// VELFileRoute: publishes a directory.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "corvane/export.h"
#include "corvane/response.h"
#include "corvane/route.h"
#include "corvane/url.h"

class VELFileRoute;

/// Reviews what a file route is about to answer.
///
/// ```cpp
/// struct NoBackups : VELFileRouteDelegate {
///   void fileRouteDecideResponseForFileAtURL(VELFileRoute&, const VELURL& fileURL,
///                                            std::shared_ptr<VELRequest>,
///                                            std::shared_ptr<VELResponse> suggestedResponse,
///                                            VELResponseHandler responseHandler) override {
///     const bool isBackup = fileURL.pathExtension() == "bak";
///     if (isBackup) suggestedResponse = std::make_shared<VELNotFoundResponse>();
///     responseHandler(suggestedResponse);
///   }
/// };
/// ```
class CORVANE_EXPORT VELFileRouteDelegate {
 public:
  virtual ~VELFileRouteDelegate();

  /// Decides the answer for something that is there and readable: calls `responseHandler` once, now or
  /// later, with the suggestion, another response, or an error. `fileURL` is what the suggestion is for:
  /// the file, the index file of a directory, or a directory without one.
  /// Default: answers with the suggestion.
  /// Queue:   the connection's, those of several at once; the handler may be called on any.
  virtual void fileRouteDecideResponseForFileAtURL(VELFileRoute& fileRoute, const VELURL& fileURL,
                                                   std::shared_ptr<VELRequest> request,
                                                   std::shared_ptr<VELResponse> suggestedResponse,
                                                   VELResponseHandler responseHandler);
};

/// Serves the files below a directory: what follows the route's match in the path is looked up there.
///
/// ```cpp
/// auto route = VELFileRoute::routeWithPath("/pictures", VELURL::fileURLWithPath("/srv/pictures"));
/// route->setDirectoryIndexNames({"index.html", "index.htm"});
/// ```
/// | found                                | answer                                 |
/// |--------------------------------------|----------------------------------------|
/// | a readable file                      | 200, or 206 with the ranges asked for  |
/// | a directory with an index file       | that file                              |
/// | a directory without one              | 403; it is never listed                |
/// | something that lacks the permissions | 403                                    |
/// | nothing, or nothing readable         | 404                                    |
/// | a device, a pipe or a socket         | 404; it is never opened                |
/// | an index file that is one, or is     | 200 without a body                     |
/// | a directory                          |                                        |
///
/// The tree cannot be left: what would lead out of the root, by ".." or by a link, is not found, and neither is
/// an absolute link, wherever it leads. ".." and relative links that stay inside work.
/// A method other than HEAD and GET is answered with 405, whatever `allowedHTTPMethods` says.
/// Owner:   shared by the configuration and all connections.
/// Queue:   accessors: any. Evaluation reads the disk on the connection's queue.
class CORVANE_EXPORT VELFileRoute : public VELRoute {
 public:
  /// A route for the paths that begin with `path`, in any letter case unless names below `rootURL` are
  /// known to be case-sensitive.
  static std::shared_ptr<VELFileRoute> routeWithPath(std::string_view path, const VELURL& rootURL);

  using VELRoute::VELRoute;
  ~VELFileRoute() override;

  void evaluateWithRequest(std::shared_ptr<VELRequest> request,
                           VELResponseHandler responseHandler) override;

  /// Answers for what is at `fileURL`, which is readable: makes the suggestion, and calls the delegate or
  /// the handler. A subclass that overrides it changes the decision and keeps the mapping of paths.
  /// Errors:  what is outside the root by then is answered with 404.
  /// Queue:   the connection's.
  virtual void decideResponseForFileAtURL(const VELURL& fileURL,
                                          std::shared_ptr<VELRequest> request,
                                          VELResponseHandler responseHandler);

  /// It is kept, and changes nothing: a directory without a slash at the end of its path is answered like
  /// one with it.
  /// Default: false.
  bool shouldRedirectWithTrailingSlash() const { return should_redirect_; }
  void setShouldRedirectWithTrailingSlash(bool value) { should_redirect_ = value; }
  /// Only what has at least one of these permission bits is served.
  /// Default: 0444, reading by anybody.
  uint16_t allowedFilePermissions() const { return allowed_permissions_; }
  void setAllowedFilePermissions(uint16_t mask) { allowed_permissions_ = mask; }
  /// The directory that is served. It need not exist, and may be replaced: that is noticed within 100 ms.
  /// From the first request on it is kept open, and files for a second or two after each.
  /// Default: none, and nothing is found.
  std::optional<VELURL> rootURL() const;
  void setRootURL(std::optional<VELURL> rootURL);
  /// The names that stand for a directory, the first that is there and readable.
  /// Default: "index.html".
  std::vector<std::string> directoryIndexNames() const;
  void setDirectoryIndexNames(std::vector<std::string> directoryIndexNames);
  /// Default: none.
  std::shared_ptr<VELFileRouteDelegate> delegate() const;
  void setDelegate(std::weak_ptr<VELFileRouteDelegate> delegate);

 private:
  struct Tree;
  struct Target;
  using IndexNames = std::shared_ptr<const std::vector<std::string>>;

  std::shared_ptr<const Tree> tree() const;
  void decide(const Tree& tree, Target target, std::shared_ptr<VELRequest> request,
              VELResponseHandler responseHandler);
  std::shared_ptr<VELResponse> suggestionFor(const Tree& tree, Target* target) const;

  std::atomic<bool> should_redirect_{false};
  std::atomic<uint16_t> allowed_permissions_{0444};
  mutable std::mutex mutex_;
  // Guarded by mutex_.
  std::shared_ptr<const Tree> tree_;
  IndexNames index_names_;  // none stands for the default
  std::weak_ptr<VELFileRouteDelegate> delegate_;
};
