// Users and groups (liborvacore.so.7), over the system's accounts (NSS).
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _tag_ORVAUSER {
  char* szName;   // first field: the user name
  uid_t uid;
  gid_t gid;
  char* szHome;
  char* szShell;
} ORVAUSER, *PORVAUSER;

// Looks `uid` up. Returns negative (error facility set) when the uid has no user.
// Otherwise fills *ppUser, allocating it when *ppUser is NULL and reusing it when not,
// and returns 0. Free with ORVAUserFree.
int ORVAUserGetByUID(uid_t uid, PORVAUSER* ppUser);
// The same by name.
int ORVAUserGetByName(const char* name, PORVAUSER* ppUser);
void ORVAUserFree(PORVAUSER pUser);

// 1 when `name` is an administrator (root, or a member of the group named by the
// configuration key admin_group, default "administrators"), 0 when not, negative when
// the user does not exist.
int ORVAUserIsAdmin(const char* name);

#ifdef __cplusplus
}
#endif

#ifdef __cplusplus
#include <string>

namespace ORVA {
// The name of the user `uid`, or "" when the uid has no user.
std::string UserName(uid_t uid);
}  // namespace ORVA
#endif
