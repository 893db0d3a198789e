// SQLite-backed login sessions shared by the server's worker processes.
#include "webapi/session.h"

#include <sys/random.h>
#include <sys/stat.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>

#include "core/conf.h"
#include "core/kelc.h"
#include "core/root.h"

namespace ORVA {

namespace {

const char* kSchema =
    "CREATE TABLE IF NOT EXISTS sessions ("
    " id TEXT PRIMARY KEY, user TEXT NOT NULL, csrf TEXT NOT NULL, lang TEXT NOT NULL,"
    " created INTEGER NOT NULL, last_seen INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS login_failures ("
    " key TEXT PRIMARY KEY, failures INTEGER NOT NULL, last_ms INTEGER NOT NULL);";

// Failures in a row are forgotten this long after the last one.
const int64_t kFailureMemoryMs = 15 * 60 * 1000;

// Writing last_seen on every request would make each call a write transaction.
const int kTouchInterval = 5;

int64_t Now() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return ts.tv_sec;
}

int64_t NowMs() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

}  // namespace

std::string WebRandomHex(size_t bytes) {
  std::string raw(bytes, '\0');
  size_t got = 0;
  while (got < bytes) {
    ssize_t n = getrandom(raw.data() + got, bytes - got, 0);
    if (n < 0) {
      if (errno == EINTR) continue;
      syslog(LOG_ERR, "%s:%d getrandom failed: %m", __FILE_NAME__, __LINE__);
      KELC_ERR_SET(KELC_ERR_IO);
      return "";
    }
    got += static_cast<size_t>(n);
  }
  static const char digits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes * 2);
  for (unsigned char c : raw) {
    hex.push_back(digits[c >> 4]);
    hex.push_back(digits[c & 15]);
  }
  return hex;
}

bool WebConstantTimeEquals(const std::string& a, const std::string& b) {
  if (a.size() != b.size()) return false;
  unsigned char diff = 0;
  for (size_t i = 0; i < a.size(); ++i) diff |= static_cast<unsigned char>(a[i] ^ b[i]);
  return diff == 0;
}

bool WebLanguageExists(const std::string& lang) {
  if (lang.empty() || lang.size() > 32) return false;
  for (char c : lang) {
    bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '-';
    if (!ok) return false;
  }
  struct stat st;
  std::string path = ORVAPathMap("/usr/orva/orvaman/webman/texts/" + lang);
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

SessionStore& SessionStore::Instance() {
  static SessionStore store;
  return store;
}

SessionStore::~SessionStore() { Close(); }

void SessionStore::Close() {
  if (db_ != nullptr && pid_ == getpid()) sqlite3_close_v2(db_);
  // A connection inherited across fork() is abandoned, never used nor closed.
  db_ = nullptr;
}

int SessionStore::IdleTimeout() {
  if (idle_ < 0) {
    std::string v = OrvaConf().Def("session_idle_timeout", "1800");
    char* end = nullptr;
    long n = strtol(v.c_str(), &end, 10);
    if (end == v.c_str() || *end != '\0' || n <= 0 || n > 365L * 86400) {
      syslog(LOG_ERR, "%s:%d bad session_idle_timeout \"%s\"; using 1800", __FILE_NAME__, __LINE__, v.c_str());
      n = 1800;
    }
    idle_ = static_cast<int>(n);
  }
  return idle_;
}

bool SessionStore::Open() {
  if (db_ != nullptr && pid_ == getpid()) return true;
  if (db_ != nullptr) {
    db_ = nullptr;
    idle_ = -1;
  }
  std::string dir = ORVAPathMap("/var/lib/orva");
  std::string path = dir + "/sessions.db";
  for (size_t slash = 1; slash != std::string::npos; slash = dir.find('/', slash + 1)) {
    mkdir(dir.substr(0, slash).c_str(), 0755);
  }
  mkdir(dir.c_str(), 0700);  // the task store's folder too: private
  mode_t old = umask(077);
  int rc = sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                           nullptr);
  umask(old);
  if (rc != SQLITE_OK) {
    syslog(LOG_ERR, "%s:%d cannot open %s: %s", __FILE_NAME__, __LINE__, path.c_str(),
           db_ ? sqlite3_errmsg(db_) : sqlite3_errstr(rc));
    sqlite3_close_v2(db_);
    db_ = nullptr;
    KELC_ERR_SET(KELC_ERR_DATABASE);
    return false;
  }
  pid_ = getpid();
  sqlite3_busy_timeout(db_, 5000);
  char* err = nullptr;
  if (sqlite3_exec(db_, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL;", nullptr, nullptr, &err) != SQLITE_OK ||
      sqlite3_exec(db_, kSchema, nullptr, nullptr, &err) != SQLITE_OK) {
    syslog(LOG_ERR, "%s:%d cannot prepare %s: %s", __FILE_NAME__, __LINE__, path.c_str(), err ? err : "");
    sqlite3_free(err);
    Close();
    KELC_ERR_SET(KELC_ERR_DATABASE);
    return false;
  }
  return true;
}

bool SessionStore::Init() {
  bool ok = Open();
  Close();
  return ok;
}

bool SessionStore::Create(const std::string& user, const std::string& lang, WebSession* out) {
  if (!Open()) return false;
  WebSession s{WebRandomHex(32), user, WebRandomHex(32), lang};
  if (s.id.empty() || s.csrf.empty()) return false;
  int64_t now = Now();
  sqlite3_stmt* purge = nullptr;
  if (sqlite3_prepare_v2(db_, "DELETE FROM sessions WHERE last_seen < ?", -1, &purge, nullptr) == SQLITE_OK) {
    sqlite3_bind_int64(purge, 1, now - IdleTimeout());
    sqlite3_step(purge);
  }
  sqlite3_finalize(purge);
  sqlite3_stmt* st = nullptr;
  bool ok = sqlite3_prepare_v2(db_, "INSERT INTO sessions(id, user, csrf, lang, created, last_seen) VALUES(?,?,?,?,?,?)",
                               -1, &st, nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_bind_text(st, 1, s.id.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(st, 2, s.user.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(st, 3, s.csrf.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_text(st, 4, s.lang.c_str(), -1, SQLITE_TRANSIENT);
    sqlite3_bind_int64(st, 5, now);
    sqlite3_bind_int64(st, 6, now);
    ok = sqlite3_step(st) == SQLITE_DONE;
  }
  if (!ok) {
    syslog(LOG_ERR, "%s:%d cannot store a session: %s", __FILE_NAME__, __LINE__, sqlite3_errmsg(db_));
    KELC_ERR_SET(KELC_ERR_DATABASE);
  }
  sqlite3_finalize(st);
  if (ok && out != nullptr) *out = s;
  return ok;
}

bool SessionStore::Lookup(const std::string& id, WebSession* out) {
  if (id.size() != 64 || !Open()) return false;
  sqlite3_stmt* st = nullptr;
  if (sqlite3_prepare_v2(db_, "SELECT user, csrf, lang, last_seen FROM sessions WHERE id = ?", -1, &st, nullptr) !=
      SQLITE_OK) {
    syslog(LOG_ERR, "%s:%d session lookup failed: %s", __FILE_NAME__, __LINE__, sqlite3_errmsg(db_));
    KELC_ERR_SET(KELC_ERR_DATABASE);
    return false;
  }
  sqlite3_bind_text(st, 1, id.c_str(), -1, SQLITE_TRANSIENT);
  int rc = sqlite3_step(st);
  if (rc != SQLITE_ROW) {
    if (rc != SQLITE_DONE) {
      syslog(LOG_ERR, "%s:%d session lookup failed: %s", __FILE_NAME__, __LINE__, sqlite3_errmsg(db_));
    }
    sqlite3_finalize(st);
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return false;
  }
  WebSession s;
  s.id = id;
  s.user = reinterpret_cast<const char*>(sqlite3_column_text(st, 0));
  s.csrf = reinterpret_cast<const char*>(sqlite3_column_text(st, 1));
  s.lang = reinterpret_cast<const char*>(sqlite3_column_text(st, 2));
  int64_t lastSeen = sqlite3_column_int64(st, 3);
  sqlite3_finalize(st);
  int64_t now = Now();
  if (now - lastSeen > IdleTimeout()) {
    Remove(id);
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return false;
  }
  if (now - lastSeen >= kTouchInterval) {
    sqlite3_stmt* up = nullptr;
    if (sqlite3_prepare_v2(db_, "UPDATE sessions SET last_seen = ? WHERE id = ?", -1, &up, nullptr) == SQLITE_OK) {
      sqlite3_bind_int64(up, 1, now);
      sqlite3_bind_text(up, 2, id.c_str(), -1, SQLITE_TRANSIENT);
      if (sqlite3_step(up) != SQLITE_DONE) {
        syslog(LOG_ERR, "%s:%d cannot mark session used: %s", __FILE_NAME__, __LINE__, sqlite3_errmsg(db_));
      }
    }
    sqlite3_finalize(up);
  }
  if (out != nullptr) *out = s;
  return true;
}

bool SessionStore::Remove(const std::string& id) {
  if (!Open()) return false;
  sqlite3_stmt* st = nullptr;
  bool ok = sqlite3_prepare_v2(db_, "DELETE FROM sessions WHERE id = ?", -1, &st, nullptr) == SQLITE_OK;
  if (ok) {
    sqlite3_bind_text(st, 1, id.c_str(), -1, SQLITE_TRANSIENT);
    ok = sqlite3_step(st) == SQLITE_DONE;
  }
  if (!ok) {
    syslog(LOG_ERR, "%s:%d cannot remove a session: %s", __FILE_NAME__, __LINE__, sqlite3_errmsg(db_));
    KELC_ERR_SET(KELC_ERR_DATABASE);
  }
  sqlite3_finalize(st);
  return ok;
}

double SessionStore::LoginDelay(int failures) {
  // Two slips are free; then half a second, doubling up to half a minute.
  if (failures < 3) return 0;
  return failures >= 9 ? 30.0 : 0.5 * static_cast<double>(1 << (failures - 3));
}

double SessionStore::LoginWait(const std::vector<std::string>& keys) {
  if (!Open()) return 0;
  double wait = 0;
  const int64_t now = NowMs();
  for (const std::string& key : keys) {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db_, "SELECT failures, last_ms FROM login_failures WHERE key = ?", -1, &st, nullptr) !=
        SQLITE_OK) {
      continue;
    }
    sqlite3_bind_text(st, 1, key.c_str(), -1, SQLITE_TRANSIENT);
    if (sqlite3_step(st) == SQLITE_ROW && now - sqlite3_column_int64(st, 1) < kFailureMemoryMs) {
      const double left = LoginDelay(sqlite3_column_int(st, 0)) - (now - sqlite3_column_int64(st, 1)) / 1000.0;
      if (left > wait) wait = left;
    }
    sqlite3_finalize(st);
  }
  return wait;
}

int SessionStore::LoginFailed(const std::vector<std::string>& keys) {
  if (!Open()) return 0;
  const int64_t now = NowMs();
  int most = 0;
  sqlite3_exec(db_, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr);
  sqlite3_stmt* purge = nullptr;
  if (sqlite3_prepare_v2(db_, "DELETE FROM login_failures WHERE last_ms < ?", -1, &purge, nullptr) == SQLITE_OK) {
    sqlite3_bind_int64(purge, 1, now - kFailureMemoryMs);
    sqlite3_step(purge);
  }
  sqlite3_finalize(purge);
  for (const std::string& key : keys) {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db_,
                           "INSERT INTO login_failures(key, failures, last_ms) VALUES(?, 1, ?) "
                           "ON CONFLICT(key) DO UPDATE SET failures = failures + 1, last_ms = excluded.last_ms "
                           "RETURNING failures",
                           -1, &st, nullptr) == SQLITE_OK) {
      sqlite3_bind_text(st, 1, key.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_bind_int64(st, 2, now);
      if (sqlite3_step(st) == SQLITE_ROW && sqlite3_column_int(st, 0) > most) most = sqlite3_column_int(st, 0);
    }
    sqlite3_finalize(st);
  }
  if (sqlite3_exec(db_, "COMMIT", nullptr, nullptr, nullptr) != SQLITE_OK) {
    syslog(LOG_ERR, "%s:%d cannot count a failed login: %s", __FILE_NAME__, __LINE__, sqlite3_errmsg(db_));
    sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
  }
  return most;
}

void SessionStore::LoginSucceeded(const std::vector<std::string>& keys) {
  if (!Open()) return;
  for (const std::string& key : keys) {
    sqlite3_stmt* st = nullptr;
    if (sqlite3_prepare_v2(db_, "DELETE FROM login_failures WHERE key = ?", -1, &st, nullptr) == SQLITE_OK) {
      sqlite3_bind_text(st, 1, key.c_str(), -1, SQLITE_TRANSIENT);
      sqlite3_step(st);
    }
    sqlite3_finalize(st);
  }
}

}  // namespace ORVA
