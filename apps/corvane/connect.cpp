// The program's own thread waits for three things at once: standard input, the session, and signals. What
// happens on other threads comes to it through a pipe.
#include "connect.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <utility>

#include "corvane/log.h"
#include "corvane/progress.h"
#include "corvane/url_request.h"
#include "corvane/web_socket.h"
#include "standard_error.h"

namespace {

constexpr int64_t kNormalClosure = 1000;    // RFC 6455 §7.4.1
constexpr int64_t kAbnormalClosure = 1006;  // RFC 6455 §7.4.1
// Input is not read while this much of it waits to be sent.
constexpr size_t kMostUnsent = size_t{4} << 20;
// A server that neither says anything nor closes is not waited for any longer.
constexpr std::chrono::seconds kLongestFarewell{5};

/// What the pipe tells: one byte each.
enum Notice : char { kOpened = 'o', kEnded = 'e', kSignalled = 's' };

// Its writing end, for the handler of signals.
int g_notices = -1;

void giveNotice(Notice notice) {
  const int saved = errno;
  const char byte = notice;
  while (::write(g_notices, &byte, 1) < 0 && errno == EINTR) {
  }
  errno = saved;
}

void setActionOfEndingSignals(void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  for (const int signal : {SIGINT, SIGTERM}) sigaction(signal, &action, nullptr);
}

void signalDidCome(int /*signal*/) {
  setActionOfEndingSignals(SIG_DFL);
  giveNotice(kSignalled);
}

/// From now on the first signal is a notice, and a second one, of either kind, has its default action.
void watchEndingSignals() {
  setActionOfEndingSignals(signalDidCome);
  sigset_t signals;
  sigemptyset(&signals);
  for (const int signal : {SIGINT, SIGTERM}) sigaddset(&signals, signal);
  pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

/// `text` in one line, whatever the other end put into it.
std::string inOneLine(std::string_view text) {
  std::string line(text);
  for (char& c : line) {
    if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) c = ' ';
  }
  return line;
}

std::string hexadecimal(std::string_view bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  text.reserve(bytes.size() * 2);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xF];
  }
  return text;
}

/// What the session and its opening leave for the program's thread.
class Events : public VELWebSocketDelegate {
 public:
  /// Queue:   the session's.
  void openingDidEnd(std::shared_ptr<VELWebSocket> session, const std::optional<VELError>& error) {
    const std::lock_guard lock(mutex_);
    // Told again when what was cancelled or refused disconnects.
    if (std::exchange(is_settled_, true)) return;
    session_ = std::move(session);
    error_ = error;
    giveNotice(session_ ? kOpened : kEnded);
  }

  void webSocketDidReceiveMessage(VELWebSocket& webSocket,
                                  const VELWebSocketMessage& message) override {
    const std::string line =
        (message.isText() ? message.data().string() : "binary: " + hexadecimal(message.text())) +
        "\n";
    if (std::fwrite(line.data(), 1, line.size(), stdout) == line.size() &&
        std::fflush(stdout) == 0) {
      return;
    }
    writeLineToStandardError("corvane: standard output cannot be written");
    webSocket.closeWithCode(kNormalClosure);
    const std::lock_guard lock(mutex_);
    has_failed_ = true;
  }

  void webSocketDidCloseWithError(VELWebSocket& /*webSocket*/, const VELError& error) override {
    const bool hasCode = error.domain() == VELWebSocketErrorDomain;
    const int64_t code = hasCode ? error.code() : kAbnormalClosure;
    const std::string& reason = error.localizedDescription();
    writeLineToStandardError("closed: " + std::to_string(code) +
                             (reason.empty() ? "" : " " + inOneLine(reason)));
    const std::lock_guard lock(mutex_);
    has_failed_ = has_failed_ || code != kNormalClosure;
    giveNotice(kEnded);
  }

  std::shared_ptr<VELWebSocket> session() {
    const std::lock_guard lock(mutex_);
    return session_;
  }
  std::optional<VELError> error() {
    const std::lock_guard lock(mutex_);
    return error_;
  }
  void setHasFailed() {
    const std::lock_guard lock(mutex_);
    has_failed_ = true;
  }
  bool hasFailed() {
    const std::lock_guard lock(mutex_);
    return has_failed_;
  }

 private:
  std::mutex mutex_;
  // Guarded by mutex_.
  bool is_settled_ = false;
  bool has_failed_ = false;
  std::shared_ptr<VELWebSocket> session_;
  std::optional<VELError> error_;
};

/// Standard input, a line at a time.
class Input {
 public:
  bool hasEnded() const { return has_ended_; }

  /// Reads what is there, and sends each line that is complete.
  void readInto(VELWebSocket& session, Events& events) {
    char buffer[65'536];
    const ssize_t count = ::read(STDIN_FILENO, buffer, sizeof buffer);
    if (count < 0 && (errno == EINTR || errno == EAGAIN)) return;
    if (count <= 0) {
      has_ended_ = true;
      // The last line may have no end.
      if (!rest_.empty()) send(rest_, session, events);
      session.close();
      return;
    }
    const size_t searched = rest_.size();
    rest_.append(buffer, static_cast<size_t>(count));
    size_t begin = 0;
    for (size_t end; (end = rest_.find('\n', std::max(begin, searched))) != std::string::npos;
         begin = end + 1) {
      send(std::string_view(rest_).substr(begin, end - begin), session, events);
    }
    rest_.erase(0, begin);
    waitUntilSent(session);
  }

 private:
  static void send(std::string_view line, VELWebSocket& session, Events& events) {
    try {
      session.sendMessage(line);
    } catch (const VELException&) {
      events.setHasFailed();
      writeLineToStandardError("corvane: a line that is not UTF-8 was not sent");
    }
  }

  // A file is read faster than it can be sent.
  static void waitUntilSent(VELWebSocket& session) {
    const auto isMuchUnsent = [&session] {
      size_t unsent = 0;
      session.delegateQueue()->sync([&] {
        if (const auto socket = session.socket()) unsent = socket->unsentLength();
      });
      return unsent > kMostUnsent;
    };
    while (isMuchUnsent()) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  std::string rest_;
  bool has_ended_ = false;
};

VELURLRequest requestFor(const ConnectOptions& options) {
  VELURLRequest request(*VELURL::URLWithString(options.url));
  for (const auto& [name, value] : options.headers) request.addValueForHTTPHeaderField(value, name);
  for (const std::string& protocol : options.protocols) {
    request.addValueForHTTPHeaderField(protocol, "Sec-WebSocket-Protocol");
  }
  return request;
}

std::string whyItFailed(const std::optional<VELError>& error) {
  if (!error) return "the server closed the connection";
  if (error->domain() == VELURLErrorDomain) return "the server does not open a WebSocket there";
  if (error->domain() == VELCocoaErrorDomain) return "interrupted";
  return inOneLine(error->localizedDescription());
}

/// Returns once the connection has gone. After the close frame it goes on taking in what the other end sends;
/// a process that ended before would have the system reset it, and what was sent last would be lost.
void waitUntilGone(const VELSocket& socket) {
  const auto latest = std::chrono::steady_clock::now() + kLongestFarewell;
  while (socket.localPort() != 0 && std::chrono::steady_clock::now() < latest) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

/// The exit code, once the session or its opening has ended.
int finish(const std::string& url, const VELSocket* socket, Events& events) {
  if (events.session()) {
    if (socket != nullptr) waitUntilGone(*socket);
    return events.hasFailed() ? EXIT_FAILURE : EXIT_SUCCESS;
  }
  writeLineToStandardError("corvane: cannot connect to " + url + ": " +
                           whyItFailed(events.error()));
  return EXIT_FAILURE;
}

/// Waits for notices and input until there is nothing left to do.
int run(int notices, const std::string& url, VELProgress& progress,
        const std::shared_ptr<Events>& events) {
  Input input;
  std::shared_ptr<VELSocket> socket;  // none for a session that ended before it was started
  while (true) {
    const std::shared_ptr<VELWebSocket> session = events->session();
    // A negative descriptor is left out.
    pollfd waited[] = {{notices, POLLIN, 0},
                       {session && !input.hasEnded() ? STDIN_FILENO : -1, POLLIN, 0}};
    if (::poll(waited, 2, -1) < 0) continue;
    char notice = 0;
    if (waited[0].revents != 0 && ::read(notices, &notice, 1) == 1) {
      if (notice == kEnded) return finish(url, socket.get(), *events);
      if (notice == kOpened) {
        socket = events->session()->socket();
        events->session()->setDelegate(events);
        events->session()->start();
      } else if (session) {
        session->close();
      } else {
        progress.cancel();
      }
    } else if (waited[1].revents != 0) {
      input.readInto(*session, *events);
    }
  }
}

}  // namespace

int connect(const ConnectOptions& options) {
  std::signal(SIGPIPE, SIG_IGN);
  VELSetLogSink([](std::string_view line) { writeLineToStandardError(std::string(line)); });
  // Nothing else may stand in its place.
  if (::fcntl(STDIN_FILENO, F_GETFD) < 0) (void)::open("/dev/null", O_RDONLY);
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) {
    writeLineToStandardError("corvane: no pipe can be made");
    return kCannotStart;
  }
  g_notices = ends[1];
  const auto events = std::make_shared<Events>();
  const auto progress = VELWebSocket::openWebSocketWithRequest(
      requestFor(options), nullptr,
      [events](std::shared_ptr<VELWebSocket> session, const std::optional<VELError>& error) {
        events->openingDidEnd(std::move(session), error);
      });
  watchEndingSignals();
  return run(ends[0], options.url, *progress, events);
}
