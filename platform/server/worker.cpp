// A worker process: one thread, one io_context, serving HTTP on the inherited
// listening sockets; a module call runs to its end before anything else is served.
#include <signal.h>
#include <sys/socket.h>
#include <syslog.h>

#include <utility>  // before Asio: its awaitable.hpp uses std::exchange

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <memory>
#include <optional>
#include <set>

#include "core/root.h"
#include "server.h"
#include "webapi/registry.h"

namespace orvad {

namespace asio = boost::asio;
namespace beast = boost::beast;
using tcp = asio::ip::tcp;
using local = asio::local::stream_protocol;

namespace {

class ConnectionBase {
 public:
  virtual ~ConnectionBase() = default;
  virtual void Drain() = 0;
};

// Live connections of this worker, so that SIGTERM can close the idle ones.
std::set<ConnectionBase*> gConnections;
bool gDraining = false;

template <class Protocol>
class Connection : public ConnectionBase, public std::enable_shared_from_this<Connection<Protocol>> {
 public:
  using Stream = beast::basic_stream<Protocol, asio::any_io_executor, beast::unlimited_rate_policy>;

  Connection(typename Protocol::socket socket, Peer peer, const Timeouts& t)
      : stream_(std::move(socket)), idleTimer_(stream_.get_executor()), peer_(peer), t_(t) {
    gConnections.insert(this);
  }
  ~Connection() override { gConnections.erase(this); }

  void Start() { WaitForRequest(); }

  void Drain() override {
    if (idle_) {
      idleTimer_.cancel();
      beast::error_code ec;
      stream_.socket().close(ec);
    }
  }

 private:
  void WaitForRequest() {
    if (gDraining) return Close();
    parser_.emplace();
    parser_->body_limit(kBodyLimit);
    parser_->header_limit(kHeaderLimit);
    if (buffer_.size() > 0) return ReadHeader();  // pipelined bytes already here
    idle_ = true;
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
      syslog(LOG_WARNING, "%s:%d request body over %zu bytes refused", __FILE_NAME__, __LINE__, kBodyLimit);
      return Reply(ErrorResponse(ORVA::WEBAPI_ERR_TOO_LARGE, 11, false));
    }
    if (ec == http::error::header_limit) {
      syslog(LOG_WARNING, "%s:%d request header over %zu bytes refused", __FILE_NAME__, __LINE__, kHeaderLimit);
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
    Request req = parser_->release();
    Response res = HandleRequest(req, peer_);
    if (gDraining) res.keep_alive(false);
    Reply(std::move(res));
  }

  void Reply(Response res) {
    res_ = std::make_shared<Response>(std::move(res));
    stream_.expires_after(std::chrono::seconds(t_.writeSeconds));
    auto self = this->shared_from_this();
    http::async_write(stream_, *res_, [self](beast::error_code ec, size_t) {
      bool keep = self->res_->keep_alive();
      self->res_.reset();
      if (ec) return self->Close();
      if (!keep) return self->LingerClose();
      self->WaitForRequest();
    });
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
    idleTimer_.cancel();
    stream_.socket().close(ec);
  }

  Stream stream_;
  asio::steady_timer idleTimer_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::shared_ptr<Response> res_;
  Peer peer_;
  Timeouts t_;
  bool idle_ = false;
  size_t lingerBytes_ = 0;
  char discard_[16384];
};

template <class Protocol>
class Listener : public std::enable_shared_from_this<Listener<Protocol>> {
 public:
  Listener(asio::io_context& ioc, const Protocol& protocol, int fd, const Timeouts& t)
      : acceptor_(ioc), t_(t) {
    acceptor_.assign(protocol, fd);
  }
  void Start() { Accept(); }
  void Stop() {
    beast::error_code ec;
    acceptor_.cancel(ec);
    acceptor_.release(ec);  // the supervisor keeps the socket: do not close it for the others
  }

 private:
  void Accept() {
    auto self = this->shared_from_this();
    acceptor_.async_accept([self](beast::error_code ec, typename Protocol::socket socket) {
      if (gDraining || ec == asio::error::operation_aborted) return;
      if (!ec) {
        Peer peer;
        if constexpr (std::is_same_v<Protocol, local>) {
          ucred cred{};
          socklen_t len = sizeof cred;
          if (getsockopt(socket.native_handle(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0) {
            syslog(LOG_ERR, "%s:%d SO_PEERCRED failed: %m", __FILE_NAME__, __LINE__);
            beast::error_code ignored;
            socket.close(ignored);
            return self->Accept();
          }
          peer.local = true;
          peer.uid = cred.uid;
        } else {
          beast::error_code ignored;
          socket.set_option(tcp::no_delay(true), ignored);
        }
        std::make_shared<Connection<Protocol>>(std::move(socket), peer, self->t_)->Start();
      } else {
        syslog(LOG_ERR, "%s:%d accept failed: %s", __FILE_NAME__, __LINE__, ec.message().c_str());
      }
      self->Accept();
    });
  }

  typename Protocol::acceptor acceptor_;
  Timeouts t_;
};

}  // namespace

int RunWorker(int unixFd, int tcpFd, const Timeouts& timeouts) {
  signal(SIGPIPE, SIG_IGN);
  // A terminal's Ctrl-C reaches the whole process group; the supervisor alone decides
  // and drains the workers with SIGTERM.
  signal(SIGINT, SIG_IGN);
  // Modules and their database connections belong to this process alone.
  ORVA::APIRegistry::Instance().LoadDirectory(ORVA::ORVAPathMap("/usr/orva/lib/webapi"));

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
    syslog(LOG_ERR, "%s:%d worker cannot use the listening sockets: %s", __FILE_NAME__, __LINE__, e.what());
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
