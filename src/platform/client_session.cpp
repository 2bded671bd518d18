#include "platform/client_session.h"

#include <arpa/inet.h>

#include <algorithm>
#include <utility>

#include "platform/ascii.h"
#include "platform/loop_pool.h"
#include "platform/queue_runner.h"
#include "platform/redirect.h"

namespace vel {
namespace {

constexpr char kQueueLabel[] = "org.corvane.ClientSession";
// Idle handles keep a few kilobytes each.
constexpr size_t kMostSpareHandles = 64;
// Less than the 60 seconds for which libcurl has transfers use an address.
constexpr std::chrono::seconds kHostIsKnown{50};
// A library that asks to be called again at once has it so often before others have their turn.
constexpr int kActsPerTurn = 64;

VELError cancelled() {
  return VELError(VELURLErrorDomain, kVELURLErrorCancelled, "The request was cancelled.");
}

VELError outOfMemory() {
  return VELError(VELURLErrorDomain, kVELURLErrorUnknown, "There is too little memory.");
}

bool isHTTP(const VELURL& url) {
  return equalsIgnoringCase(url.scheme(), "http") || equalsIgnoringCase(url.scheme(), "https");
}

// Whether finding the host's address takes a thread: libcurl knows these by itself.
bool needsLookUp(const std::string& host) {
  in6_addr address;
  return !equalsIgnoringCase(host, "localhost") &&
         ::inet_pton(AF_INET, host.c_str(), &address) != 1 &&
         ::inet_pton(AF_INET6, host.c_str(), &address) != 1;
}

EventLoop& loopAtHand() {
  const QueueFrame* frame = ThreadRecord::current().frame;
  return frame != nullptr ? QueueRunner::loopOf(*frame->queue)
                          : VELEventLoops::sharedLoops()->pool()->nextLoop();
}

}  // namespace

ClientSession::ClientSession() {
  static const CURLcode initialised = curl_global_init(CURL_GLOBAL_DEFAULT);
  (void)initialised;
}

ClientSession::~ClientSession() {
  hosts_.clear();
  for (const auto& transfer : transfers_) dismiss(*transfer);
  if (multi_ != nullptr) curl_multi_cleanup(multi_);
  if (sockets_) sockets_->close();
  // Last: each handle that goes may set the time for the others.
  Deadline::remove();
}

const std::shared_ptr<VELSerialQueue>& ClientSession::queueForUse() {
  std::lock_guard lock(mutex_);
  if (!queue_) queue_ = QueueRunner::makeQueue(kQueueLabel, loopAtHand());
  return queue_;
}

bool ClientSession::hasStopped() const {
  std::lock_guard lock(mutex_);
  return queue_ && QueueRunner::loopOf(*queue_).hasStopped();
}

void ClientSession::start(VELURLRequest request, std::shared_ptr<VELProgress> progress,
                          TransferCompletion completion) {
  const std::shared_ptr<VELSerialQueue>& queue = queueForUse();
  auto transfer = std::make_shared<Transfer>(weak_from_this(), queue, std::move(request), progress,
                                             std::move(completion));
  progress->setCancellationHandler(
      [weak_session = weak_from_this(), weak_transfer = std::weak_ptr(transfer)] {
        const std::shared_ptr<ClientSession> session = weak_session.lock();
        if (!session) return;
        session->queue_->async([session, weak_transfer] {
          if (const auto begun = weak_transfer.lock()) session->fail(*begun, cancelled());
        });
      });
  queue->async([self = shared_from_this(), transfer] { self->begin(transfer); });
}

std::vector<std::shared_ptr<VELProgress>> ClientSession::transfers() const {
  std::lock_guard lock(mutex_);
  std::vector<std::shared_ptr<VELProgress>> found;
  for (const auto& transfer : transfers_) found.push_back(transfer->progress());
  return found;
}

void ClientSession::invalidateAndCancel() {
  {
    std::lock_guard lock(mutex_);
    is_invalid_ = true;
    // Nothing was ever begun, and loops need not start for its end.
    if (!queue_) return;
  }
  queue_->async([self = shared_from_this()] { self->cancelAll(); });
}

void ClientSession::cancelAll() {
  std::unordered_set<std::shared_ptr<Transfer>> cancelled_ones;
  {
    std::lock_guard lock(mutex_);
    cancelled_ones.swap(transfers_);
  }
  hosts_.clear();
  for (const auto& transfer : cancelled_ones) dismiss(*transfer);
  spare_handles_.clear();
  if (multi_ != nullptr) curl_multi_cleanup(std::exchange(multi_, nullptr));
  if (sockets_) std::exchange(sockets_, nullptr)->close();
  Deadline::remove();
  for (const auto& transfer : cancelled_ones) transfer->complete({{}, {}, cancelled()});
}

bool ClientSession::open() {
  if (multi_ != nullptr) return true;
  auto sockets = std::make_shared<ForeignSockets>(weak_from_this(), queue_);
  if (!sockets->open()) return false;
  CURLM* multi = curl_multi_init();
  if (multi == nullptr) {
    sockets->close();
    return false;
  }
  curl_multi_setopt(multi, CURLMOPT_SOCKETFUNCTION, &ClientSession::socketDidChange);
  curl_multi_setopt(multi, CURLMOPT_SOCKETDATA, this);
  curl_multi_setopt(multi, CURLMOPT_TIMERFUNCTION, &ClientSession::timerDidChange);
  curl_multi_setopt(multi, CURLMOPT_TIMERDATA, this);
  curl_multi_setopt(multi, CURLMOPT_PIPELINING, long{CURLPIPE_NOTHING});
  multi_ = multi;
  sockets_ = std::move(sockets);
  return true;
}

void ClientSession::begin(const std::shared_ptr<Transfer>& transfer) {
  {
    std::lock_guard lock(mutex_);
    if (!is_invalid_ && !transfer->progress()->isCancelled()) transfers_.insert(transfer);
  }
  if (!transfers_.contains(transfer)) return transfer->complete({{}, {}, cancelled()});
  transfer->touch();
  admit(transfer);
  socketsWereServed();
}

// Hands the transfer to libcurl, unless it has to wait for its host's address.
void ClientSession::admit(const std::shared_ptr<Transfer>& transfer) {
  if (!isHTTP(transfer->URL())) {
    return end(transfer, {{},
                          {},
                          VELError(VELURLErrorDomain, kVELURLErrorUnsupportedURL,
                                   "The location is neither http nor https.")});
  }
  if (!waitsForHost(transfer)) perform(transfer);
}

void ClientSession::perform(const std::shared_ptr<Transfer>& transfer) {
  CurlHandle handle;
  if (spare_handles_.empty()) {
    handle.reset(curl_easy_init());
  } else {
    handle = std::move(spare_handles_.back());
    spare_handles_.pop_back();
  }
  if (!open() || !transfer->prepare(std::move(handle)) ||
      curl_multi_add_handle(multi_, transfer->handle()) != CURLM_OK) {
    end(transfer, {{}, {}, outOfMemory()});
  }
}

// A look-up has a thread, and what it finds is lost when the transfer that asked ends early. So look-ups are
// nobody's, and a crowd that asks for the same name needs one.
bool ClientSession::waitsForHost(const std::shared_ptr<Transfer>& transfer) {
  const VELURL& location = transfer->URL();
  if (!needsLookUp(location.host())) return false;
  Host& host = hosts_[hostFieldOf(location)];
  if (coarseNow() < host.known_until) return false;
  if (!host.look_up && !beginLookUp(location, &host)) return false;
  host.waiting.push_back(transfer);
  return true;
}

// A connection that is refused its socket: by then libcurl knows the addresses.
bool ClientSession::beginLookUp(const VELURL& location, Host* host) {
  CurlHandle look_up(curl_easy_init());
  if (!look_up || !open()) return false;
  CURL* const handle = look_up.get();
  const curl_opensocket_callback refuse = [](void*, curlsocktype, curl_sockaddr*) {
    return curl_socket_t{CURL_SOCKET_BAD};
  };
  curl_easy_setopt(handle, CURLOPT_OPENSOCKETFUNCTION, refuse);
  curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
  curl_easy_setopt(handle, CURLOPT_CONNECT_ONLY, 1L);
  curl_easy_setopt(handle, CURLOPT_DNS_CACHE_TIMEOUT, static_cast<long>(kHostIsKnown.count()));
  if (!prepareForLookUps(handle) ||
      curl_easy_setopt(handle, CURLOPT_URL, location.absoluteString().c_str()) != CURLE_OK ||
      curl_multi_add_handle(multi_, handle) != CURLM_OK) {
    return false;
  }
  host->look_up = std::move(look_up);
  return true;
}

void ClientSession::didLookUp(CURL* look_up, CURLcode code) {
  const auto found = std::find_if(hosts_.begin(), hosts_.end(), [look_up](const auto& entry) {
    return entry.second.look_up.get() == look_up;
  });
  if (found == hosts_.end()) return;
  curl_multi_remove_handle(multi_, look_up);
  const std::vector<std::shared_ptr<Transfer>> waiting = std::move(found->second.waiting);
  found->second = {};
  if (code == CURLE_COULDNT_CONNECT)
    found->second.known_until = timeAfter(coarseNow(), std::chrono::milliseconds(kHostIsKnown));
  // Redirects may have led anywhere.
  std::erase_if(hosts_, [now = coarseNow()](const auto& entry) {
    return !entry.second.look_up && entry.second.known_until <= now;
  });
  for (const auto& next : waiting) {
    if (!transfers_.contains(next)) continue;
    code == CURLE_COULDNT_RESOLVE_HOST ? end(next, next->resultOf(code)) : perform(next);
  }
}

// Takes the handle back.
void ClientSession::dismiss(Transfer& transfer) {
  if (CurlHandle handle = transfer.takeHandle()) {
    curl_multi_remove_handle(multi_, handle.get());
    if (spare_handles_.size() >= kMostSpareHandles) return;
    curl_easy_reset(handle.get());
    spare_handles_.push_back(std::move(handle));
  }
}

void ClientSession::end(const std::shared_ptr<Transfer>& transfer, TransferResult result) {
  {
    std::lock_guard lock(mutex_);
    if (transfers_.erase(transfer) == 0) return;
  }
  dismiss(*transfer);
  transfer->complete(std::move(result));
}

void ClientSession::fail(Transfer& transfer, VELError error) {
  end(transfer.shared_from_this(), {{}, {}, std::move(error)});
  socketsWereServed();
}

void ClientSession::act(curl_socket_t socket, int events) {
  int running = 0;
  curl_multi_socket_action(multi_, socket, events, &running);
}

void ClientSession::socketIsReady(int fd, uint32_t readiness) {
  if (multi_ == nullptr) return;
  int events = 0;
  if (readiness & kReadable) events |= CURL_CSELECT_IN;
  if (readiness & kWritable) events |= CURL_CSELECT_OUT;
  if (readiness & kHungUp) events |= CURL_CSELECT_ERR;
  act(fd, events);
}

void ClientSession::socketsWereServed() {
  for (int acts = 0; multi_ != nullptr; ++acts) {
    takeFinished();
    if (!std::exchange(timer_is_due_, false)) return;
    if (acts == kActsPerTurn) {
      timer_is_due_ = true;
      return queue_->async([self = shared_from_this()] { self->socketsWereServed(); });
    }
    act(CURL_SOCKET_TIMEOUT, 0);
  }
}

void ClientSession::deadlineDidFire() {
  timer_is_due_ = true;
  socketsWereServed();
}

void ClientSession::takeFinished() {
  int left = 0;
  while (const CURLMsg* message = multi_ ? curl_multi_info_read(multi_, &left) : nullptr) {
    if (message->msg != CURLMSG_DONE) continue;
    char* transfer = nullptr;
    const CURLcode code = message->data.result;
    curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
    if (transfer == nullptr) {
      didLookUp(message->easy_handle, code);
    } else {
      didFinish(reinterpret_cast<Transfer*>(transfer)->shared_from_this(), code);
    }
  }
}

void ClientSession::didFinish(const std::shared_ptr<Transfer>& transfer, CURLcode code) {
  std::optional<VELError> error;
  if (code != CURLE_OK || !transfer->followRedirect(&error)) {
    return end(transfer, transfer->resultOf(code));
  }
  if (error) return end(transfer, {{}, {}, std::move(error)});
  dismiss(*transfer);
  admit(transfer);
}

int ClientSession::socketDidChange(CURL*, curl_socket_t socket, int what, void* session,
                                   void* known) {
  auto& self = *static_cast<ClientSession*>(session);
  if (!self.sockets_) return 0;
  uint32_t readiness = 0;
  if (what == CURL_POLL_IN || what == CURL_POLL_INOUT) readiness |= kReadable;
  if (what == CURL_POLL_OUT || what == CURL_POLL_INOUT) readiness |= kWritable;
  self.sockets_->watch(socket, readiness, known != nullptr);
  if (known == nullptr) curl_multi_assign(self.multi_, socket, session);
  return 0;
}

int ClientSession::timerDidChange(CURLM*, long milliseconds, void* session) {
  auto& self = *static_cast<ClientSession*>(session);
  self.timer_is_due_ = milliseconds == 0;
  if (milliseconds > 0) {
    self.Deadline::arm(*self.queue_, std::chrono::milliseconds(milliseconds));
  } else {
    self.Deadline::disarm();
  }
  return 0;
}

}  // namespace vel
