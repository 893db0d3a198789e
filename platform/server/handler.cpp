// One HTTP request: the web API entry point (identity, permission, dispatch) and the
// static files of the webman folder.
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <boost/algorithm/string.hpp>
#include <cstring>
#include <memory>
#include <sstream>
#include <vector>

#include "core/conf.h"
#include "core/json_read.h"
#include "core/log.h"
#include "core/lookup_epoch.h"
#include "core/root.h"
#include "core/user.h"
#include "server.h"
#include "webapi/registry.h"
#include "webapi/session.h"
#include "webapi/webapi.h"

namespace orvad {

namespace {

// A JSON string as the stream writer below quotes it with emitUTF8: only '"', '\\' and
// control characters are escaped, every other byte is written as it is.
void AppendQuoted(std::string& out, const char* s, const char* end) {
  static const char kHex[] = "0123456789abcdef";
  out += '"';
  const char* run = s;
  for (const char* c = s; c != end; ++c) {
    const unsigned char ch = static_cast<unsigned char>(*c);
    if (ch >= 0x20 && ch != '"' && ch != '\\') continue;
    out.append(run, c);
    run = c + 1;
    switch (ch) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\b': out += "\\b"; break;
      case '\f': out += "\\f"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default: {
        const char u[] = {'\\', 'u', '0', '0', kHex[ch >> 4], kHex[ch & 15]};
        out.append(u, sizeof u);
      }
    }
  }
  out.append(run, end);
  out += '"';
}

// Compact JSON, byte for byte what the stream writer writes, without its stream and its
// copy of every object's member names: a listing of 1,000 tasks is some 200 KB, and the
// stream writer took a third of its request. False for a value carrying comments (the
// stream writer writes them).
bool AppendJson(std::string& out, const Json::Value& v) {
  if (v.hasComment(Json::commentBefore) || v.hasComment(Json::commentAfterOnSameLine) ||
      v.hasComment(Json::commentAfter)) {
    return false;
  }
  switch (v.type()) {
    case Json::nullValue:
      out += "null";
      return true;
    case Json::intValue:
      out += Json::valueToString(v.asLargestInt());
      return true;
    case Json::uintValue:
      out += Json::valueToString(v.asLargestUInt());
      return true;
    case Json::realValue:
      out += Json::valueToString(v.asDouble());
      return true;
    case Json::booleanValue:
      out += v.asBool() ? "true" : "false";
      return true;
    case Json::stringValue: {
      const char* b;
      const char* e;
      if (v.getString(&b, &e)) AppendQuoted(out, b, e);
      return true;
    }
    case Json::arrayValue:
    case Json::objectValue: {
      // Both walk their map in order (an array's is by index), as the stream writer does.
      const bool object = v.type() == Json::objectValue;
      out += object ? '{' : '[';
      bool first = true;
      for (auto it = v.begin(), end = v.end(); it != end; ++it) {
        if (!first) out += ',';
        first = false;
        if (object) {
          const char* nameEnd;
          const char* name = it.memberName(&nameEnd);
          AppendQuoted(out, name, nameEnd);
          out += ':';
        }
        if (!AppendJson(out, *it)) return false;
      }
      out += object ? '}' : ']';
      return true;
    }
  }
  return false;
}

std::string WriteJson(const Json::Value& v) {
  std::string fast;
  if (AppendJson(fast, v)) return fast;
  // Built once per worker: making a builder's settings costs more than a small reply.
  static const std::unique_ptr<Json::StreamWriter> writer = [] {
    Json::StreamWriterBuilder b;
    b["indentation"] = "";
    b["emitUTF8"] = true;
    return std::unique_ptr<Json::StreamWriter>(b.newStreamWriter());
  }();
  std::ostringstream out;
  writer->write(v, &out);
  return out.str();
}

// The configured default language, read again only when orva.conf changes.
std::string DefaultLanguage() {
  static std::string cached;
  static timespec cachedMtime{-1, 0};
  struct stat st;
  timespec mtime{0, 0};
  if (stat(ORVA::ORVAPathMap("/etc/orva/orva.conf").c_str(), &st) == 0) mtime = st.st_mtim;
  if (mtime.tv_sec != cachedMtime.tv_sec || mtime.tv_nsec != cachedMtime.tv_nsec || cached.empty()) {
    cached = OrvaConf().Def("default_lang", "en");
    if (cached.empty()) cached = "en";
    cachedMtime = mtime;
  }
  return cached;
}

// Every reply: the page may not be framed (clickjacking), types are not sniffed, and
// nothing leaks in a Referer. The policy allows what the page uses: its own files (ES
// modules, the style sheet, icons, texts) and calls to its own origin; no inline code.
void SetSecurityHeaders(http::fields& res) {
  res.set("Content-Security-Policy",
          "default-src 'self'; frame-ancestors 'none'; base-uri 'none'; form-action 'self'");
  res.set("X-Content-Type-Options", "nosniff");
  res.set("X-Frame-Options", "DENY");
  res.set("Referrer-Policy", "no-referrer");
}

Response JsonResponse(http::status status, const Json::Value& body, unsigned version, bool keepAlive) {
  Response res{status, version};
  res.set(http::field::content_type, "application/json; charset=utf-8");
  res.set(http::field::cache_control, "no-store");
  SetSecurityHeaders(res);
  res.keep_alive(keepAlive);
  res.body() = WriteJson(body);
  res.prepare_payload();
  return res;
}

Response TextResponse(http::status status, const std::string& text, unsigned version, bool keepAlive) {
  Response res{status, version};
  res.set(http::field::content_type, "text/plain; charset=utf-8");
  SetSecurityHeaders(res);
  res.keep_alive(keepAlive);
  res.body() = text;
  res.prepare_payload();
  return res;
}

// The value of one cookie among every Cookie header.
std::string CookieValue(const Request& req, const std::string& name) {
  for (const auto& f : req) {
    if (f.name() != http::field::cookie) continue;
    std::string header(f.value());
    std::vector<std::string> parts;
    boost::split(parts, header, boost::is_any_of(";"));
    for (std::string& p : parts) {
      boost::trim(p);
      size_t eq = p.find('=');
      if (eq != std::string::npos && p.compare(0, eq, name) == 0 && eq == name.size()) return p.substr(eq + 1);
    }
  }
  return "";
}

std::string SetCookieValue(const std::string& id) {
  if (id.empty()) {
    return std::string(kSessionCookie) + "=; Path=/; Max-Age=0; HttpOnly; SameSite=Strict";
  }
  return std::string(kSessionCookie) + "=" + id + "; Path=/; HttpOnly; SameSite=Strict";
}

bool IsLogin(const std::string& api, const std::string& method) {
  return api == "ORVA.API.Auth" && method == "login";
}

// What failed logins are counted under: the client's address and the account named.
std::vector<std::string> LoginKeys(const Json::Value& params, const Peer& peer) {
  std::vector<std::string> keys = {
      "address:" + (peer.local ? "local uid " + std::to_string(peer.uid) : peer.address)};
  if (params.isObject() && params["account"].isString() && !params["account"].asString().empty()) {
    keys.push_back("account:" + params["account"].asString());
  }
  return keys;
}

void NoteLogin(const Json::Value& envelope, const Json::Value& params, const Peer& peer) {
  const std::vector<std::string> keys = LoginKeys(params, peer);
  ORVA::SessionStore& store = ORVA::SessionStore::Instance();
  if (envelope["success"] == Json::Value(true)) {
    store.LoginSucceeded(keys);
    return;
  }
  const Json::Value& code = envelope["error"]["code"];
  if (code != 401 && code != 402) return;  // a malformed request guesses nothing
  const int failures = store.LoginFailed(keys);
  ORVA_LOG(LOG_NOTICE, "failed login %s from %s (%d in a row; the next waits %.1f s)",
           keys.size() > 1 ? ("of \"" + params["account"].asString() + "\"").c_str() : "with a token",
           keys[0].c_str() + 8, failures, ORVA::SessionStore::LoginDelay(failures));
}

Response HandleEntry(const Request& req, const Peer& peer) {
  const unsigned ver = req.version();
  const bool keep = req.keep_alive();
  const std::string& body = req.body();
  if (JsonDepth(body, kJsonDepthLimit) > kJsonDepthLimit) {
    ORVA_LOG(LOG_WARNING, "request nested deeper than %d refused", kJsonDepthLimit);
    return ErrorResponse(ORVA::WEBAPI_ERR_BAD_REQUEST, ver, keep);
  }
  Json::Value root;
  std::string errs;
  const bool parsed = ORVA::JsonParse(body, &root, &errs);
  if (!parsed || !root.isObject() || !root["api"].isString() || root["api"].asString().empty() ||
      !(root["version"].type() == Json::intValue || root["version"].type() == Json::uintValue) ||
      !root["version"].isInt() || !root["method"].isString() || root["method"].asString().empty() ||
      !(root["params"].isNull() || root["params"].isObject()) ||
      !(root["lang"].isNull() || root["lang"].isString())) {
    return ErrorResponse(ORVA::WEBAPI_ERR_BAD_REQUEST, ver, keep);
  }
  const std::string api = root["api"].asString();
  const int version = root["version"].asInt();
  const std::string method = root["method"].asString();

  ORVA::APIRegistry& reg = ORVA::APIRegistry::Instance();
  int err = 0;
  const ORVA::APITableRow* row = reg.Find(api, version, method, &err);
  if (row == nullptr) return ErrorResponse(err, ver, keep);

  // Identity: the socket's peer, or a session cookie proven by its CSRF header.
  std::string user;
  std::string sessionId;
  std::string sessionLang;
  bool csrfRefused = false;
  if (peer.local) {
    user = ORVA::UserName(peer.uid);
    if (user.empty()) {
      ORVA_LOG(LOG_WARNING, "uid %u on the socket has no account", peer.uid);
    }
  } else {
    std::string cookie = CookieValue(req, kSessionCookie);
    ORVA::WebSession session;
    if (!cookie.empty() && ORVA::SessionStore::Instance().Lookup(cookie, &session)) {
      sessionId = cookie;
      auto it = req.find(kCsrfHeader);
      std::string csrf = it != req.end() ? std::string(it->value()) : "";
      if (!csrf.empty() && ORVA::WebConstantTimeEquals(csrf, session.csrf)) {
        user = session.user;
        sessionLang = session.lang;
      } else {
        csrfRefused = true;
      }
    }
  }
  const ORVA::APIAuth level = reg.GetAuth(api, method);
  if (level != ORVA::API_AUTH_PUBLIC) {
    if (user.empty()) {
      return ErrorResponse(csrfRefused ? ORVA::WEBAPI_ERR_PERMISSION : ORVA::WEBAPI_ERR_NOT_LOGGED_IN, ver, keep);
    }
    if (level == ORVA::API_AUTH_ADMIN && ORVAUserIsAdmin(user.c_str()) != 1) {
      ORVA_LOG(LOG_NOTICE, "%s may not call %s v%d %s", user.c_str(), api.c_str(), version, method.c_str());
      return ErrorResponse(ORVA::WEBAPI_ERR_PERMISSION, ver, keep);
    }
  }

  auto al = req.find(http::field::accept_language);
  std::string lang = NegotiateLanguage(root["lang"].asString(), sessionLang,
                                       al != req.end() ? std::string(al->value()) : "");
  ORVA::APIRequest request(api, version, method, root["params"], user, lang);
  request.SetSessionId(sessionId);
  ORVA::APIResponse response;
  int fw = 0;
  Json::Value envelope = reg.Call(*row, request, &response, &fw);
  if (IsLogin(api, method)) NoteLogin(envelope, root["params"], peer);
  Response res = JsonResponse(fw != 0 ? StatusOfError(fw) : http::status::ok, envelope, ver, keep);
  if (fw == 0 && response.HasSessionCookie()) res.set(http::field::set_cookie, SetCookieValue(response.GetSessionCookie()));
  return res;
}

const char* ContentType(const std::string& path) {
  static const std::pair<const char*, const char*> types[] = {
      {".html", "text/html; charset=utf-8"}, {".htm", "text/html; charset=utf-8"},
      {".js", "text/javascript; charset=utf-8"}, {".mjs", "text/javascript; charset=utf-8"},
      {".css", "text/css; charset=utf-8"},    {".json", "application/json; charset=utf-8"},
      {".svg", "image/svg+xml"},              {".png", "image/png"},
      {".jpg", "image/jpeg"},                 {".gif", "image/gif"},
      {".ico", "image/x-icon"},               {".woff2", "font/woff2"},
      {".txt", "text/plain; charset=utf-8"},  {".map", "application/json; charset=utf-8"},
  };
  for (const auto& [ext, type] : types) {
    if (boost::iends_with(path, ext)) return type;
  }
  return "application/octet-stream";
}

// Sent from the open file: nothing is read into memory first.
AnyResponse HandleStatic(const Request& req) {
  const unsigned ver = req.version();
  const bool keep = req.keep_alive();
  std::string file;
  int status = 404;
  if (!ResolveStaticPath(std::string(req.target()), &file, &status)) {
    return TextResponse(static_cast<http::status>(status), status == 400 ? "Bad request\n" : "Not found\n", ver,
                        keep);
  }
  const int fd = open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW);
  struct stat st;
  if (fd < 0 || fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    if (fd >= 0) close(fd);
    return TextResponse(http::status::not_found, "Not found\n", ver, keep);
  }
  auto headers = [&](auto& res) {
    res.set(http::field::content_type, ContentType(file));
    SetSecurityHeaders(res);
    res.set(http::field::cache_control, "no-cache");
    res.keep_alive(keep);
  };
  if (req.method() == http::verb::head) {  // the length alone: a file body would be sent
    close(fd);
    Response res{http::status::ok, ver};
    headers(res);
    res.content_length(st.st_size);
    return res;
  }
  FileResponse res{http::status::ok, ver};
  headers(res);
  boost::beast::file f;
  f.native_handle(fd);
  boost::beast::error_code ec;
  res.body().reset(std::move(f), ec);
  if (ec) {
    ORVA_LOG(LOG_ERR, "cannot read %s: %s", file.c_str(), ec.message().c_str());
    return TextResponse(http::status::internal_server_error, "Read error\n", ver, false);
  }
  res.prepare_payload();
  return res;
}

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

}  // namespace

http::status StatusOfError(int code) {
  switch (code) {
    case ORVA::WEBAPI_ERR_BAD_REQUEST: return http::status::bad_request;
    case ORVA::WEBAPI_ERR_NO_API:
    case ORVA::WEBAPI_ERR_NO_METHOD:
    case ORVA::WEBAPI_ERR_NO_VERSION: return http::status::not_found;
    case ORVA::WEBAPI_ERR_PERMISSION: return http::status::forbidden;
    case ORVA::WEBAPI_ERR_NOT_LOGGED_IN: return http::status::unauthorized;
    case ORVA::WEBAPI_ERR_TOO_LARGE: return http::status::payload_too_large;
    default: return http::status::internal_server_error;
  }
}

Response ErrorResponse(int code, unsigned version, bool keepAlive) {
  return JsonResponse(StatusOfError(code), ORVA::ErrorEnvelope(code), version, keepAlive);
}

int JsonDepth(const std::string& text, int limit) {
  int depth = 0;
  int deepest = 0;
  bool inString = false;
  for (size_t i = 0; i < text.size(); ++i) {
    char c = text[i];
    if (inString) {
      if (c == '\\') {
        ++i;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
      if (deepest > limit) return deepest;
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

std::string NegotiateLanguage(const std::string& requested, const std::string& sessionLang,
                              const std::string& acceptLanguage) {
  if (ORVA::WebLanguageExists(requested)) return requested;
  if (ORVA::WebLanguageExists(sessionLang)) return sessionLang;
  // Accept-Language: "de-CH, de;q=0.9, en;q=0.8"; highest quality first, ties in order.
  std::vector<std::pair<double, std::string>> tags;
  std::vector<std::string> items;
  boost::split(items, acceptLanguage, boost::is_any_of(","));
  for (std::string& item : items) {
    std::vector<std::string> parts;
    boost::split(parts, item, boost::is_any_of(";"));
    std::string tag = boost::trim_copy(parts[0]);
    double q = 1.0;
    for (size_t i = 1; i < parts.size(); ++i) {
      std::string p = boost::trim_copy(parts[i]);
      if (p.size() > 2 && (p[0] == 'q' || p[0] == 'Q') && p[1] == '=') q = strtod(p.c_str() + 2, nullptr);
    }
    if (!tag.empty() && tag != "*" && q > 0) tags.emplace_back(q, tag);
  }
  std::stable_sort(tags.begin(), tags.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
  for (const auto& [q, tag] : tags) {
    std::string underscored = boost::replace_all_copy(tag, "-", "_");
    std::string primary = tag.substr(0, tag.find('-'));
    for (const std::string& candidate : {tag, underscored, boost::to_lower_copy(tag), primary}) {
      if (ORVA::WebLanguageExists(candidate)) return candidate;
    }
  }
  return DefaultLanguage();
}

bool ResolveStaticPath(const std::string& target, std::string* file, int* status) {
  *status = 400;
  std::string path = target.substr(0, target.find_first_of("?#"));
  if (path.empty() || path[0] != '/') return false;
  std::string decoded;
  for (size_t i = 0; i < path.size(); ++i) {
    if (path[i] == '%') {
      int hi = i + 2 < path.size() ? HexValue(path[i + 1]) : -1;
      int lo = i + 2 < path.size() ? HexValue(path[i + 2]) : -1;
      if (hi < 0 || lo < 0) return false;
      decoded.push_back(static_cast<char>(hi * 16 + lo));
      i += 2;
    } else {
      decoded.push_back(path[i]);
    }
  }
  if (decoded.find('\0') != std::string::npos || decoded.find('\\') != std::string::npos) return false;
  std::vector<std::string> segments;
  std::vector<std::string> clean;
  boost::split(segments, decoded, boost::is_any_of("/"));
  for (const std::string& s : segments) {
    if (s == "..") return false;
    if (s.empty() || s == ".") continue;
    clean.push_back(s);
  }
  *status = 404;
  char base[PATH_MAX];
  const std::string webman = ORVA::ORVAPathMap("/usr/orva/orvaman/webman");
  if (realpath(webman.c_str(), base) == nullptr) return false;
  std::string candidate = webman;
  for (const std::string& s : clean) candidate += "/" + s;
  struct stat st;
  if (stat(candidate.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) candidate += "/index.html";
  // A symbolic link inside the folder may not lead out of it.
  char real[PATH_MAX];
  if (realpath(candidate.c_str(), real) == nullptr) return false;
  std::string baseStr = base;
  std::string realStr = real;
  if (realStr.compare(0, baseStr.size(), baseStr) != 0 || realStr.size() <= baseStr.size() ||
      (baseStr != "/" && realStr[baseStr.size()] != '/')) {
    ORVA_LOG(LOG_WARNING, "refused %s: it leads out of the webman folder", target.c_str());
    return false;
  }
  if (stat(real, &st) != 0 || !S_ISREG(st.st_mode)) return false;
  *file = realStr;
  return true;
}

double LoginWaitSeconds(const Request& req, const Peer& peer) {
  const std::string& body = req.body();
  // Only a login is held: anything else is not parsed here.
  if (req.method() != http::verb::post || body.find("login") == std::string::npos ||
      JsonDepth(body, kJsonDepthLimit) > kJsonDepthLimit) {
    return 0;
  }
  Json::Value root;
  std::string errs;
  if (!ORVA::JsonParse(body, &root, &errs) || !root.isObject() ||
      !IsLogin(root["api"].isString() ? root["api"].asString() : "",
               root["method"].isString() ? root["method"].asString() : "")) {
    return 0;
  }
  return ORVA::SessionStore::Instance().LoginWait(LoginKeys(root["params"], peer));
}

AnyResponse HandleRequest(const Request& req, const Peer& peer) {
  ORVALookupEpochNext();  // nothing cached for an earlier request is reused
  std::string target(req.target());
  std::string path = target.substr(0, target.find('?'));
  if (path == "/webapi/entry") {
    if (req.method() != http::verb::post) {
      Response res = ErrorResponse(ORVA::WEBAPI_ERR_BAD_REQUEST, req.version(), req.keep_alive());
      res.result(http::status::method_not_allowed);
      res.set(http::field::allow, "POST");
      return res;
    }
    return HandleEntry(req, peer);
  }
  if (req.method() != http::verb::get && req.method() != http::verb::head) {
    Response res = TextResponse(http::status::method_not_allowed, "Method not allowed\n", req.version(),
                                req.keep_alive());
    res.set(http::field::allow, "GET, HEAD");
    return res;
  }
  return HandleStatic(req);
}

}  // namespace orvad
