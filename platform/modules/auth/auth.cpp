// ORVA.API.Auth v1: "login" (PAM service orva-webapi, or the server's login token),
// "logout" and "whoami". Sessions live in the framework's shared session store.
#include <security/pam_appl.h>
#include <sys/stat.h>
#include <syslog.h>

#include <cstdlib>
#include <cstring>
#include <fstream>

#include "core/log.h"
#include "core/root.h"
#include "core/user.h"
#include "webapi/session.h"
#include "webapi/webapi.h"

namespace {

// Error codes of this API (module replies, HTTP 200).
enum {
  AUTH_ERR_PARAMS = 400,    // neither {"account","passwd"} nor {"token"}
  AUTH_ERR_LOGIN = 401,     // wrong account or password
  AUTH_ERR_TOKEN = 402,     // wrong login token
  AUTH_ERR_SESSION = 117,   // the session store failed
};

void Fail(ORVA::APIResponse* resp, int code, const char* msg) {
  Json::Value data;
  data["msg"] = msg;
  resp->SetError(code, data);
}

int Conversation(int n, const pam_message** msgs, pam_response** out, void* appdata) {
  const char* passwd = static_cast<const char*>(appdata);
  auto* replies = static_cast<pam_response*>(calloc(static_cast<size_t>(n), sizeof(pam_response)));
  if (replies == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < n; ++i) {
    if (msgs[i]->msg_style == PAM_PROMPT_ECHO_OFF || msgs[i]->msg_style == PAM_PROMPT_ECHO_ON) {
      replies[i].resp = strdup(passwd);
      if (replies[i].resp == nullptr) {
        for (int j = 0; j < i; ++j) free(replies[j].resp);
        free(replies);
        return PAM_BUF_ERR;
      }
    }
  }
  *out = replies;
  return PAM_SUCCESS;
}

bool PamCheck(const std::string& account, const std::string& passwd) {
  pam_conv conv{Conversation, const_cast<char*>(passwd.c_str())};
  pam_handle_t* pamh = nullptr;
  int rc = pam_start("orva-webapi", account.c_str(), &conv, &pamh);
  if (rc == PAM_SUCCESS) rc = pam_authenticate(pamh, PAM_DISALLOW_NULL_AUTHTOK);
  if (rc == PAM_SUCCESS) rc = pam_acct_mgmt(pamh, PAM_DISALLOW_NULL_AUTHTOK);
  if (rc != PAM_SUCCESS) {
    ORVA_LOG(LOG_NOTICE, "login of \"%s\" refused: %s", account.c_str(),
             pamh != nullptr ? pam_strerror(pamh, rc) : "pam_start failed");
  }
  if (pamh != nullptr) pam_end(pamh, rc);
  return rc == PAM_SUCCESS;
}

// The login token and the account it logs in as (the owner of the token file, i.e.
// the account that started the server).
bool ReadToken(std::string* token, std::string* user) {
  const std::string path = ORVA::ORVAPathMap("/run/orva/login.token");
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    ORVA_LOG(LOG_ERR, "cannot stat %s: %m", path.c_str());
    return false;
  }
  std::ifstream in(path);
  if (!in || !std::getline(in, *token) || token->size() != 64) {
    ORVA_LOG(LOG_ERR, "%s holds no token", path.c_str());
    return false;
  }
  *user = ORVA::UserName(st.st_uid);
  return !user->empty();
}

void Login(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  auto account = req->GetAndCheckString("account", ORVA::PARAM_OPTIONAL);
  auto passwd = req->GetAndCheckString("passwd", ORVA::PARAM_OPTIONAL);
  auto token = req->GetAndCheckString("token", ORVA::PARAM_OPTIONAL);
  auto lang = req->GetAndCheckString("lang", ORVA::PARAM_OPTIONAL);
  std::string user;
  if (token.IsSet()) {
    std::string expected;
    if (token.IsInvalid() || account.IsSet() || passwd.IsSet()) {
      return Fail(resp, AUTH_ERR_PARAMS, "give either account and passwd, or token");
    }
    if (!ReadToken(&expected, &user) || !ORVA::WebConstantTimeEquals(token.Get(), expected)) {
      ORVA_LOG(LOG_NOTICE, "login with a wrong token refused");
      return Fail(resp, AUTH_ERR_TOKEN, "invalid login token");
    }
  } else {
    if (!account.IsSet() || !passwd.IsSet() || account.IsInvalid() || passwd.IsInvalid() || account.Get().empty()) {
      return Fail(resp, AUTH_ERR_PARAMS, "give either account and passwd, or token");
    }
    if (!PamCheck(account.Get(), passwd.Get())) return Fail(resp, AUTH_ERR_LOGIN, "wrong account or password");
    user = account.Get();
  }
  // A login always starts a new session: the one the request came with ends.
  if (!req->GetSessionId().empty()) ORVA::SessionStore::Instance().Remove(req->GetSessionId());
  ORVA::WebSession session;
  std::string sessionLang = !lang.IsInvalid() && ORVA::WebLanguageExists(lang.Get()) ? lang.Get() : "";
  if (!ORVA::SessionStore::Instance().Create(user, sessionLang, &session)) {
    return Fail(resp, AUTH_ERR_SESSION, "cannot create a session");
  }
  ORVA_LOG(LOG_INFO, "%s logged in", user.c_str());
  resp->SetSessionCookie(session.id);
  Json::Value data;
  data["csrf_token"] = session.csrf;
  resp->SetSuccess(data);
}

void Logout(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  if (!req->GetSessionId().empty() && !ORVA::SessionStore::Instance().Remove(req->GetSessionId())) {
    return Fail(resp, AUTH_ERR_SESSION, "cannot end the session");
  }
  resp->SetSessionCookie("");
  resp->SetSuccess(Json::Value(Json::objectValue));
}

void Whoami(ORVA::APIRequest* req, ORVA::APIResponse* resp) {
  Json::Value data;
  data["user"] = req->GetLoginUserName();
  data["is_admin"] = ORVAUserIsAdmin(req->GetLoginUserName().c_str()) == 1;
  data["lang"] = req->GetUILanguage();
  resp->SetSuccess(data);
}

const ORVA::APITableRow gTable[] = {
    {"ORVA.API.Auth", 1, "login", Login},
    {"ORVA.API.Auth", 1, "logout", Logout},
    {"ORVA.API.Auth", 1, "whoami", Whoami},
    {nullptr, 0, nullptr, nullptr},
};

}  // namespace

extern "C" __attribute__((visibility("default"))) const ORVA::APITableRow* GetAPITable() { return gTable; }
