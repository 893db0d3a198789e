// Login sessions of the web API server (libwebapi-ZEM5.so), shared by every worker
// process through one SQLite database, var/lib/orva/sessions.db.
#pragma once

#include <string>
#include <vector>

namespace ORVA {

struct WebSession {
  std::string id;    // 64 hex digits, the cookie value
  std::string user;  // account name
  std::string csrf;  // 64 hex digits, the X-ORVA-CSRF value
  std::string lang;  // language chosen at login, or ""
};

class SessionStore {
 public:
  // The store of this process. A process that was forked from the one that opened it
  // opens its own connection on first use.
  static SessionStore& Instance();

  // Creates the database and its table (the server calls it once before forking).
  bool Init();
  // A new session with fresh random id and CSRF token.
  bool Create(const std::string& user, const std::string& lang, WebSession* out);
  // The live session `id`; false when unknown or idle for too long (then removed).
  // Marks the session as used.
  bool Lookup(const std::string& id, WebSession* out);
  bool Remove(const std::string& id);
  // Failed logins, shared by the workers, under keys such as "account:NAME" and
  // "address:ADDR". After `failures` failures in a row the next attempt waits
  // LoginDelay(failures) seconds from the last one; failures are forgotten 15 minutes
  // after the last.
  static double LoginDelay(int failures);
  // Seconds the next login under any of `keys` must still wait (0: none).
  double LoginWait(const std::vector<std::string>& keys);
  // Counts a failure under each key; the largest count in a row.
  int LoginFailed(const std::vector<std::string>& keys);
  // A successful login forgets the failures of its keys.
  void LoginSucceeded(const std::vector<std::string>& keys);

  ~SessionStore();

 private:
  // Idle expiry in seconds: configuration key session_idle_timeout, default 1800.
  int IdleTimeout();
  int idle_ = -1;
};

// `bytes` random bytes from getrandom(2) as lowercase hex; "" on failure (logged).
std::string WebRandomHex(size_t bytes);

// Comparison whose time does not depend on where the texts differ.
bool WebConstantTimeEquals(const std::string& a, const std::string& b);

// True when `lang` names a folder of usr/orva/orvaman/webman/texts (letters, digits,
// '_' and '-' only).
bool WebLanguageExists(const std::string& lang);

}  // namespace ORVA
