// A worker process: one thread, one io_context, serving HTTP on the inherited
// listening sockets; a module call runs to its end before anything else is served.
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include <utility>  // before Asio: its awaitable.hpp uses std::exchange

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <algorithm>
#include <chrono>
#include <memory>
#include <optional>
#include <set>

#include "core/log.h"
#include "core/root.h"
#include "server.h"
#include "webapi/registry.h"

namespace orvad {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;
using local = asio::local::stream_protocol;

namespace {

using Clock = std::chrono::steady_clock;

class ConnectionBase {
 public:
  virtual ~ConnectionBase() = default;
  // Closes the connection if it is idle (waiting for a request); true when it did.
  virtual bool Drain() = 0;
  // Since when the connection waits for a request; false when it is not idle.
  virtual bool IdleSince(Clock::time_point* since) const = 0;
};

// Live connections of this worker, so that SIGTERM can close the idle ones.
std::set<ConnectionBase*> gConnections;
// Connections whose socket is still open (closed ones linger in gConnections until
// their last handler has run).
size_t gOpen = 0;
// Most connections one worker serves at once (from its descriptor limit).
size_t gMaxConnections = 1024;
bool gDraining = false;
WorkerLoad gLoad;
// How many more connections than another worker a worker may hold before it leaves new
// ones to the other.
constexpr int kBalanceSlack = 4;

void CountOpen(int delta) {
  gOpen += delta;
  if (gLoad.open) gLoad.open[gLoad.slot].store(static_cast<int>(gOpen), std::memory_order_relaxed);
}

// All workers wait on the same listening sockets and the first awake takes what is
// queued; one with clearly more connections than another lets that one have the next.
bool Overloaded() {
  for (int i = 0; gLoad.open && i < gLoad.workers; ++i) {
    if (i != gLoad.slot && static_cast<int>(gOpen) > gLoad.open[i].load(std::memory_order_relaxed) + kBalanceSlack) {
      return true;
    }
  }
  return false;
}

// A warning that may repeat quickly (a flood of connections) is logged at most once per
// interval, with the number of times it happened since the last line.
class ThrottledLog {
 public:
  explicit ThrottledLog(const char* what) : what_(what) {}
  void Note(const std::string& detail) {
    ++count_;
    const Clock::time_point now = Clock::now();
    if (logged_ && now - last_ < std::chrono::seconds(10)) return;
    ORVA_LOG(LOG_WARNING, "%s: %s (%d time(s) since the last report)", what_, detail.c_str(), count_);
    logged_ = true;
    last_ = now;
    count_ = 0;
  }

 private:
  const char* what_;
  bool logged_ = false;
  Clock::time_point last_;
  int count_ = 0;
};

ThrottledLog gAcceptFailed("accept failed");
ThrottledLog gLimitReached("connection limit reached");

// Makes room for one more connection by closing the one that has waited longest for a
// request; false when every connection is busy.
bool CloseLongestIdle() {
  ConnectionBase* oldest = nullptr;
  Clock::time_point oldestSince;
  for (ConnectionBase* c : gConnections) {
    Clock::time_point since;
    if (c->IdleSince(&since) && (oldest == nullptr || since < oldestSince)) {
      oldest = c;
      oldestSince = since;
    }
  }
  return oldest != nullptr && oldest->Drain();
}

// The limit from RLIMIT_NOFILE, leaving a quarter (at most 64) of the descriptors for
// databases, modules, logging and static files; at most 4096.
size_t ConnectionLimit() {
  rlimit rl{};
  if (getrlimit(RLIMIT_NOFILE, &rl) != 0 || rl.rlim_cur == RLIM_INFINITY) return 4096;
  const size_t soft = static_cast<size_t>(rl.rlim_cur);
  const size_t reserve = std::min<size_t>(64, soft / 4);
  return std::clamp<size_t>(soft - reserve, 8, 4096);
}

template <class Protocol>
class Connection : public ConnectionBase, public std::enable_shared_from_this<Connection<Protocol>> {
 public:
  using Stream = beast::basic_stream<Protocol, asio::any_io_executor, beast::unlimited_rate_policy>;

  Connection(typename Protocol::socket socket, Peer peer, const Timeouts& t)
      : stream_(std::move(socket)),
        idleTimer_(stream_.get_executor()),
        delayTimer_(stream_.get_executor()),
        peer_(peer),
        t_(t) {
    gConnections.insert(this);
    CountOpen(1);
  }
  ~Connection() override {
    gConnections.erase(this);
    if (!closed_) CountOpen(-1);
  }

  void Start() { WaitForRequest(); }

  bool Drain() override {
    if (!idle_) return false;
    Close();
    return true;
  }

  bool IdleSince(Clock::time_point* since) const override {
    *since = idleSince_;
    return idle_;
  }

 private:
  void WaitForRequest() {
    if (gDraining) return Close();
    parser_.emplace();
    parser_->body_limit(kBodyLimit);
    parser_->header_limit(kHeaderLimit);
    if (buffer_.size() > 0) return ReadHeader();  // pipelined bytes already here
    idle_ = true;
    idleSince_ = Clock::now();
    idleTimer_.expires_after(std::chrono::seconds(t_.idleSeconds));
    auto self = this->shared_from_this();
    idleTimer_.async_wait([self](beast::error_code ec) {
      if (!ec) {
        beast::error_code ignored;
        self->stream_.socket().close(ignored);
      }
    });
    stream_.socket().async_wait(Protocol::socket::wait_read, [self](beast::error_code ec) {
      self->idle_ = false;
      self->idleTimer_.cancel();
      if (ec || gDraining) return self->Close();
      self->ReadHeader();
    });
  }

  void ReadHeader() {
    stream_.expires_after(std::chrono::seconds(t_.headerSeconds));
    auto self = this->shared_from_this();
    http::async_read_header(stream_, buffer_, *parser_, [self](beast::error_code ec, size_t) {
      if (ec) return self->ReadFailed(ec);
      self->OnHeader();
    });
  }

  void OnHeader() {
    auto& req = parser_->get();
    auto expect = req.find(http::field::expect);
    if (expect != req.end() && beast::iequals(expect->value(), "100-continue")) {
      auto cont = std::make_shared<http::response<http::empty_body>>(http::status::continue_, req.version());
      auto self = this->shared_from_this();
      stream_.expires_after(std::chrono::seconds(t_.writeSeconds));
      http::async_write(stream_, *cont, [self, cont](beast::error_code ec, size_t) {
        if (ec) return self->Close();
        self->ReadBody();
      });
      return;
    }
    ReadBody();
  }

  void ReadBody() {
    stream_.expires_after(std::chrono::seconds(t_.bodySeconds));
    auto self = this->shared_from_this();
    http::async_read(stream_, buffer_, *parser_, [self](beast::error_code ec, size_t) {
      if (ec) return self->ReadFailed(ec);
      self->Serve();
    });
  }

  void ReadFailed(beast::error_code ec) {
    if (ec == http::error::body_limit) {
      ORVA_LOG(LOG_WARNING, "request body over %zu bytes refused", kBodyLimit);
      return Reply(ErrorResponse(ORVA::WEBAPI_ERR_TOO_LARGE, 11, false));
    }
    if (ec == http::error::header_limit) {
      ORVA_LOG(LOG_WARNING, "request header over %zu bytes refused", kHeaderLimit);
      Response res{http::status::request_header_fields_too_large, 11};
      res.keep_alive(false);
      res.prepare_payload();
      return Reply(std::move(res));
    }
    if (ec == http::error::end_of_stream || ec == asio::error::eof || ec == beast::error::timeout ||
        ec == asio::error::operation_aborted || ec == asio::error::connection_reset) {
      return Close();
    }
    if (ec.category() == beast::error_code(http::error::bad_method).category()) {
      return Reply(ErrorResponse(ORVA::WEBAPI_ERR_BAD_REQUEST, 11, false));
    }
    Close();
  }

  void Serve() {
    held_ = parser_->release();
    ServeHeld();
  }

  // A login after failed ones waits on a timer, not in the worker's thread: everything
  // else goes on meanwhile. The wait is asked again afterwards, since other attempts
  // may have failed in between.
  void ServeHeld() {
    const double wait = LoginWaitSeconds(*held_, peer_);
    if (wait > 0) {
      delayTimer_.expires_after(std::chrono::milliseconds(static_cast<long>(wait * 1000) + 1));
      auto self = this->shared_from_this();
      delayTimer_.async_wait([self](beast::error_code ec) {
        if (ec) return self->Close();
        self->ServeHeld();
      });
      return;
    }
    Request req = std::move(*held_);
    held_.reset();
    AnyResponse res = HandleRequest(req, peer_);
    if (gDraining) std::visit([](auto& r) { r.keep_alive(false); }, res);
    Reply(std::move(res));
  }

  void Reply(AnyResponse res) {
    res_ = std::make_shared<AnyResponse>(std::move(res));
    stream_.expires_after(std::chrono::seconds(t_.writeSeconds));
    auto self = this->shared_from_this();
    std::visit(
        [&](auto& r) {
          http::async_write(stream_, r, [self, keep = r.keep_alive()](beast::error_code ec, size_t) {
            self->res_.reset();
            if (ec) return self->Close();
            if (!keep) return self->LingerClose();
            self->WaitForRequest();
          });
        },
        *res_);
  }

  // Half-closes and reads what the client still sends (a refused large body) before
  // closing, so that it sees the reply instead of a reset.
  void LingerClose() {
    beast::error_code ec;
    stream_.socket().shutdown(Protocol::socket::shutdown_send, ec);
    stream_.expires_after(std::chrono::seconds(2));
    lingerBytes_ = 0;
    Discard();
  }

  void Discard() {
    auto self = this->shared_from_this();
    stream_.async_read_some(asio::buffer(discard_), [self](beast::error_code ec, size_t n) {
      self->lingerBytes_ += n;
      if (ec || self->lingerBytes_ > 4 * kBodyLimit) return self->Close();
      self->Discard();
    });
  }

  void Close() {
    beast::error_code ec;
    idle_ = false;
    idleTimer_.cancel();
    delayTimer_.cancel();
    stream_.socket().close(ec);
    if (!closed_) CountOpen(-1);
    closed_ = true;
  }

  Stream stream_;
  asio::steady_timer idleTimer_;
  asio::steady_timer delayTimer_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::optional<Request> held_;
  std::shared_ptr<AnyResponse> res_;
  Peer peer_;
  Timeouts t_;
  bool idle_ = false;
  bool closed_ = false;
  Clock::time_point idleSince_;
  size_t lingerBytes_ = 0;
  char discard_[16384];
};

template <class Protocol>
class Listener : public std::enable_shared_from_this<Listener<Protocol>> {
 public:
  Listener(asio::io_context& ioc, const Protocol& protocol, int fd, const Timeouts& t)
      : acceptor_(ioc), pause_(ioc), t_(t) {
    acceptor_.assign(protocol, fd);
  }
  void Start() { Accept(); }
  void Stop() {
    beast::error_code ec;
    pause_.cancel();
    acceptor_.cancel(ec);
    acceptor_.release(ec);  // the supervisor keeps the socket: do not close it for the others
  }

 private:
  // Out of descriptors with nothing idle to close: accepting again at once would only
  // fail again, so wait a moment (the connection stays queued in the kernel meanwhile).
  // Also the short step back of a worker that holds more than its share.
  void PauseThenAccept(std::chrono::milliseconds pause = std::chrono::milliseconds(100)) {
    pause_.expires_after(pause);
    auto self = this->shared_from_this();
    pause_.async_wait([self](beast::error_code ec) {
      if (!ec && !gDraining) self->Accept();
    });
  }

  // Over the limit with every connection busy: a short reply instead of silence.
  static void Refuse(typename Protocol::socket& socket) {
    static const char kBusy[] =
        "HTTP/1.1 503 Service Unavailable\r\nContent-Type: text/plain; charset=utf-8\r\n"
        "Content-Length: 34\r\nRetry-After: 1\r\nConnection: close\r\n\r\n"
        "Too many connections; retry soon.\n";
    ssize_t ignored = send(socket.native_handle(), kBusy, sizeof kBusy - 1, MSG_DONTWAIT | MSG_NOSIGNAL);
    (void)ignored;
    beast::error_code ec;
    socket.close(ec);
  }

  void Accept() {
    auto self = this->shared_from_this();
    acceptor_.async_accept([self](beast::error_code ec, typename Protocol::socket socket) {
      if (gDraining || ec == asio::error::operation_aborted) return;
      if (!ec && gOpen >= gMaxConnections) {
        const bool freed = CloseLongestIdle();
        gLimitReached.Note(std::to_string(gMaxConnections) + " connections; " +
                           (freed ? "closed the longest idle one" : "none idle: refused with 503"));
        if (!freed) {
          Refuse(socket);
          return self->Accept();
        }
      }
      if (!ec) {
        Peer peer;
        if constexpr (std::is_same_v<Protocol, local>) {
          ucred cred{};
          socklen_t len = sizeof cred;
          if (getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
            ORVA_LOG(LOG_ERR, "SO_PEERCRED failed: %m");
            beast::error_code ignored;
            socket.close(ignored);
            return self->Accept();
          }
          peer.local = true;
          peer.uid = cred.uid;
        } else {
          beast::error_code ignored;
          socket.set_option(tcp::no_delay(true), ignored);
          peer.address = socket.remote_endpoint(ignored).address().to_string();
        }
        std::make_shared<Connection<Protocol>>(std::move(socket), peer, self->t_)->Start();
        if (Overloaded()) return self->PauseThenAccept(std::chrono::milliseconds(5));
      } else if (ec == asio::error::no_descriptors || ec.value() == ENFILE || ec == asio::error::no_buffer_space ||
                 ec == asio::error::no_memory) {
        // Out of descriptors: the longest idle connection makes room, else pause.
        const bool freed = CloseLongestIdle();
        gAcceptFailed.Note(ec.message() + (freed ? "; closed the longest idle connection" : "; pausing"));
        if (!freed) return self->PauseThenAccept();
      } else {
        gAcceptFailed.Note(ec.message());
      }
      self->Accept();
    });
  }

  typename Protocol::acceptor acceptor_;
  asio::steady_timer pause_;
  Timeouts t_;
};

}  // namespace

int RunWorker(int unixFd, int tcpFd, const Timeouts& timeouts, const WorkerLoad& load) {
  gLoad = load;
  signal(SIGPIPE, SIG_IGN);
  // A terminal's Ctrl-C reaches the whole process group; the supervisor alone decides
  // and drains the workers with SIGTERM.
  signal(SIGINT, SIG_IGN);
  // Modules and their database connections belong to this process alone.
  ORVA::APIRegistry::Instance().LoadDirectory(ORVA::ORVAPathMap("/usr/orva/lib/webapi"));
  gMaxConnections = ConnectionLimit();

  asio::io_context ioc(1);
  std::shared_ptr<Listener<local>> unixListener;
  std::shared_ptr<Listener<tcp>> tcpListener;
  try {
    unixListener = std::make_shared<Listener<local>>(ioc, local(), unixFd, timeouts);
    unixListener->Start();
    if (tcpFd >= 0) {
      sockaddr_storage addr{};
      socklen_t len = sizeof addr;
      getsockname(tcpFd, reinterpret_cast<sockaddr*>(&addr), &len);
      tcpListener = std::make_shared<Listener<tcp>>(ioc, addr.ss_family == AF_INET6 ? tcp::v6() : tcp::v4(), tcpFd,
                                                   timeouts);
      tcpListener->Start();
    }
  } catch (const std::exception& e) {
    ORVA_LOG(LOG_ERR, "worker cannot use the listening sockets: %s", e.what());
    return 1;
  }

  asio::signal_set signals(ioc, SIGTERM);
  signals.async_wait([&](beast::error_code ec, int) {
    if (ec) return;
    gDraining = true;
    unixListener->Stop();
    if (tcpListener) tcpListener->Stop();
    // Copy: Drain may destroy connections.
    std::set<ConnectionBase*> live = gConnections;
    for (ConnectionBase* c : live) {
      if (gConnections.count(c)) c->Drain();
    }
  });
  ioc.run();
  return 0;
}

}  // namespace orvad
