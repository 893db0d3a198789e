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
#include "core/log.h"
#include "core/program.h"
#include "core/root.h"
#include "core/sqlite_db.h"

namespace ORVA {

namespace {

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
      ORVA_LOG(LOG_ERR, "getrandom failed: %m");
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

namespace {

const char* const kMigrations[] = {
    // 1: sessions and failed logins (IF NOT EXISTS: databases from before migrations).
    "CREATE TABLE IF NOT EXISTS sessions ("
    " id TEXT PRIMARY KEY, user TEXT NOT NULL, csrf TEXT NOT NULL, lang TEXT NOT NULL,"
    " created INTEGER NOT NULL, last_seen INTEGER NOT NULL);"
    "CREATE TABLE IF NOT EXISTS login_failures ("
    " key TEXT PRIMARY KEY, failures INTEGER NOT NULL, last_ms INTEGER NOT NULL);",
};

SqlDb& Db() {
  static SqlDb* db = new SqlDb({"sessions.db", KELC_ERR_DATABASE, 5000, "NORMAL", kMigrations, 1, false});
  return *db;
}

// This process's connection to the sessions database, locked while it lives.
struct Conn : SqlConn {
  Conn() : SqlConn(Db(), ORVAPathMap("/var/lib/orva/sessions.db")) {}
};

}  // namespace

SessionStore::~SessionStore() { Db().Close(); }

int SessionStore::IdleTimeout() {
  if (idle_ < 0) {
    std::string v = OrvaConf().Def("session_idle_timeout", "1800");
    long n = 0;
    if (!ORVA::ParseLong(v.c_str(), 1, 365L * 86400, &n)) {
      ORVA_LOG(LOG_ERR, "bad session_idle_timeout \"%s\"; using 1800", v.c_str());
      n = 1800;
    }
    idle_ = static_cast<int>(n);
  }
  return idle_;
}

bool SessionStore::Init() {
  bool ok = Conn().db() != nullptr;
  Db().Close();
  return ok;
}

bool SessionStore::Create(const std::string& user, const std::string& lang, WebSession* out) {
  WebSession s{WebRandomHex(32), user, WebRandomHex(32), lang};
  if (s.id.empty() || s.csrf.empty()) return false;
  const int64_t idle = IdleTimeout();
  Conn conn;
  if (!conn.db()) return false;
  int64_t now = Now();
  SqlStmt purge(conn.db(), "DELETE FROM sessions WHERE last_seen < ?");
  purge.Bind(1, now - idle);
  purge.Step();
  SqlStmt st(conn.db(), "INSERT INTO sessions(id, user, csrf, lang, created, last_seen) VALUES(?,?,?,?,?,?)");
  int c = 1;
  for (const std::string* v : {&s.id, &s.user, &s.csrf, &s.lang}) st.Bind(c++, *v);
  st.Bind(c++, now);
  st.Bind(c++, now);
  if (st.Step() != SQLITE_DONE) return false;
  if (out != nullptr) *out = s;
  return true;
}

bool SessionStore::Lookup(const std::string& id, WebSession* out) {
  if (id.size() != 64) return false;
  const int64_t idle = IdleTimeout();
  Conn conn;
  if (!conn.db()) return false;
  SqlStmt st(conn.db(), "SELECT user, csrf, lang, last_seen FROM sessions WHERE id = ?");
  st.Bind(1, id);
  if (st.Step() != SQLITE_ROW) {
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return false;
  }
  WebSession s{id, st.Text(0), st.Text(1), st.Text(2)};
  const int64_t lastSeen = st.Int(3);
  const int64_t now = Now();
  if (now - lastSeen > idle) {
    SqlStmt del(conn.db(), "DELETE FROM sessions WHERE id = ?");
    del.Bind(1, id);
    del.Step();
    KELC_ERR_SET(KELC_ERR_NOT_FOUND);
    return false;
  }
  if (now - lastSeen >= kTouchInterval) {
    SqlStmt up(conn.db(), "UPDATE sessions SET last_seen = ? WHERE id = ?");
    up.Bind(1, now);
    up.Bind(2, id);
    up.Step();
  }
  if (out != nullptr) *out = s;
  return true;
}

bool SessionStore::Remove(const std::string& id) {
  Conn conn;
  if (!conn.db()) return false;
  SqlStmt st(conn.db(), "DELETE FROM sessions WHERE id = ?");
  st.Bind(1, id);
  return st.Step() == SQLITE_DONE;
}

double SessionStore::LoginDelay(int failures) {
  // Two slips are free; then half a second, doubling up to half a minute.
  if (failures < 3) return 0;
  return failures >= 9 ? 30.0 : 0.5 * static_cast<double>(1 << (failures - 3));
}

double SessionStore::LoginWait(const std::vector<std::string>& keys) {
  Conn conn;
  if (!conn.db()) return 0;
  double wait = 0;
  const int64_t now = NowMs();
  for (const std::string& key : keys) {
    SqlStmt st(conn.db(), "SELECT failures, last_ms FROM login_failures WHERE key = ?");
    st.Bind(1, key);
    if (st.Step() == SQLITE_ROW && now - st.Int(1) < kFailureMemoryMs) {
      const double left = LoginDelay(static_cast<int>(st.Int(0))) - (now - st.Int(1)) / 1000.0;
      if (left > wait) wait = left;
    }
  }
  return wait;
}

int SessionStore::LoginFailed(const std::vector<std::string>& keys) {
  Conn conn;
  if (!conn.db()) return 0;
  const int64_t now = NowMs();
  int most = 0;
  const bool txn = conn.Begin(true);
  SqlStmt purge(conn.db(), "DELETE FROM login_failures WHERE last_ms < ?");
  purge.Bind(1, now - kFailureMemoryMs);
  purge.Step();
  for (const std::string& key : keys) {
    SqlStmt st(conn.db(),
               "INSERT INTO login_failures(key, failures, last_ms) VALUES(?, 1, ?) "
               "ON CONFLICT(key) DO UPDATE SET failures = failures + 1, last_ms = excluded.last_ms "
               "RETURNING failures");
    st.Bind(1, key);
    st.Bind(2, now);
    if (st.Step() == SQLITE_ROW && st.Int(0) > most) most = static_cast<int>(st.Int(0));
  }
  if (txn) conn.Commit();
  return most;
}

void SessionStore::LoginSucceeded(const std::vector<std::string>& keys) {
  Conn conn;
  if (!conn.db()) return;
  for (const std::string& key : keys) {
    SqlStmt st(conn.db(), "DELETE FROM login_failures WHERE key = ?");
    st.Bind(1, key);
    st.Step();
  }
}

}  // namespace ORVA
