// orva-webapid internals shared by the supervisor, the workers and the request handler.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <boost/beast/http.hpp>
#include <string>
#include <variant>

namespace orvad {

namespace http = boost::beast::http;

using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;
using FileResponse = http::response<http::file_body>;
using AnyResponse = std::variant<Response, FileResponse>;

// Limits of one request.
constexpr size_t kBodyLimit = 1024 * 1024;
constexpr size_t kHeaderLimit = 16 * 1024;
constexpr int kJsonDepthLimit = 64;
constexpr const char* kSessionCookie = "orva_session";
constexpr const char* kCsrfHeader = "X-ORVA-CSRF";

struct Timeouts {
  int headerSeconds = 10;  // from the first byte of a request to the end of its header
  int bodySeconds = 30;    // reading the body: three times the header's
  int idleSeconds = 60;    // a kept-alive connection waiting for its next request
  int writeSeconds = 30;   // sending a reply
};

// Who is on the other end of a connection.
struct Peer {
  bool local = false;  // the Unix socket: identified by its credentials
  uid_t uid = static_cast<uid_t>(-1);
  std::string address;  // TCP: the client's IP address
};

// Serves one complete request (web API entry or static file).
AnyResponse HandleRequest(const Request& req, const Peer& peer);
// Seconds a login request must wait before it is served, after failed logins of its
// account or from its address (0 for any other request).
double LoginWaitSeconds(const Request& req, const Peer& peer);
// A framework error reply (envelope with `code`, the matching HTTP status).
Response ErrorResponse(int code, unsigned version, bool keepAlive);
// The HTTP status of a framework error code.
http::status StatusOfError(int code);
// Depth of the deepest array/object nesting of a JSON text (strings skipped);
// stops counting once `limit` is exceeded.
int JsonDepth(const std::string& text, int limit);
// The UI language: a valid requested one, else the session's, else the best of
// Accept-Language, else the configured default.
std::string NegotiateLanguage(const std::string& requested, const std::string& sessionLang,
                              const std::string& acceptLanguage);
// Maps a request path onto a file of the webman folder; false when it would leave the
// folder or names no regular file. `status` receives 400 or 404 on failure.
bool ResolveStaticPath(const std::string& target, std::string* file, int* status);

// The open connections of every worker, in memory the workers share: a worker that
// holds clearly more than another leaves new connections to it for a moment.
struct WorkerLoad {
  std::atomic<int>* open = nullptr;  // one per worker
  int workers = 0;
  int slot = 0;  // this worker's
};

// Runs one worker process on the inherited listening sockets until SIGTERM drains it.
int RunWorker(int unixFd, int tcpFd, const Timeouts& timeouts, const WorkerLoad& load);

}  // namespace orvad
