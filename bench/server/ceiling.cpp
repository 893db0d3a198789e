// bench_server_ceiling PORT [PROCESSES]: the least an HTTP/1.1 keep-alive server on
// Beast can do (read a request, answer a fixed JSON reply), one single-threaded
// process per worker sharing one listening socket, as orva-webapid's workers do.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <vector>
#include <utility>  // before Asio: its awaitable.hpp uses std::exchange

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using tcp = asio::ip::tcp;

class Conn : public std::enable_shared_from_this<Conn> {
 public:
  explicit Conn(tcp::socket s) : s_(std::move(s)) {}
  void Read() {
    req_ = {};
    auto self = shared_from_this();
    http::async_read(s_, buf_, req_, [self](beast::error_code ec, size_t) {
      if (ec) return;
      self->res_ = {http::status::ok, self->req_.version()};
      self->res_.set(http::field::content_type, "application/json; charset=utf-8");
      self->res_.keep_alive(self->req_.keep_alive());
      self->res_.body() = "{\"data\":{},\"success\":true}";
      self->res_.prepare_payload();
      http::async_write(self->s_, self->res_, [self](beast::error_code ec2, size_t) {
        if (!ec2 && self->res_.keep_alive()) self->Read();
      });
    });
  }

 private:
  tcp::socket s_;
  beast::flat_buffer buf_;
  http::request<http::string_body> req_;
  http::response<http::string_body> res_;
};

void Accept(tcp::acceptor& a) {
  a.async_accept([&a](beast::error_code ec, tcp::socket s) {
    if (!ec) std::make_shared<Conn>(std::move(s))->Read();
    Accept(a);
  });
}

int main(int argc, char** argv) {
  if (argc < 2) {
    fprintf(stderr, "usage: bench_server_ceiling PORT [PROCESSES]\n");
    return 2;
  }
  int procs = argc > 2 ? atoi(argv[2]) : 1;
  asio::io_context setup;
  tcp::acceptor listener(setup, {asio::ip::make_address("127.0.0.1"), static_cast<unsigned short>(atoi(argv[1]))});
  // Port 0 picks a free one; the bound port is the first line of stdout.
  printf("%u\n", listener.local_endpoint().port());
  fflush(stdout);
  int fd = listener.release();
  static std::vector<pid_t> children;
  for (int i = 0; i < procs; ++i) {
    pid_t pid = fork();
    if (pid > 0) children.push_back(pid);
    if (pid == 0) {
      asio::io_context ioc(1);
      tcp::acceptor a(ioc);
      a.assign(tcp::v4(), fd);
      Accept(a);
      ioc.run();
      _exit(0);
    }
  }
  signal(SIGTERM, [](int) {
    for (pid_t c : children) kill(c, SIGKILL);
    _exit(0);
  });
  while (wait(nullptr) > 0) {
  }
  return 0;
}
