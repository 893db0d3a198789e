// Recycle-bin service (liborvarecycle.so.7) over etc/orva/shares.json.
//
// "home" names the users' home folders. It is kept in shares.json as an ordinary
// entry {"name": "home", "path": "", "recycle_bin": bool} (empty path: each user's
// home folder, found through the user database), added at the end of the array the
// first time its recycle bin is switched. ORVAShareEnum never lists it, since it is
// not a shared folder; an absent "home" entry means its recycle bin is off.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// The folder at the root of a share (or of a user's home folder) that holds its bin.
#define ORVA_RECYCLE_DIR_NAME ".recycle"

// Switches the recycle bin of `share` on (1) or off (0) in etc/orva/shares.json,
// rewriting the file atomically (temporary file in the same folder, fsync, rename)
// under an exclusive lock, so concurrent callers lose no update. Other entries, their
// order and their other members are kept. Returns 0 (also when nothing changed);
// negative, with the error facility set, on failure: unknown share
// (KELC_ERR_NOT_FOUND), `enable` other than 0/1 or an empty name
// (KELC_ERR_INVALID_ARGUMENT), malformed file (KELC_ERR_PARSE), I/O (KELC_ERR_IO).
int ORVARecycleStatusSet(const char* share, int enable);

// One entry of shares.json, as the recycle-bin tools need it.
typedef struct _tag_ORVA_RECYCLE_SHARE {
  char* szName;     // share name; "home" for the users' home folders
  char* szPath;     // the share's absolute folder, as written (not mapped); "" for "home"
  int recycleBin;   // 1 when its recycle bin is on
} ORVA_RECYCLE_SHARE, *PORVA_RECYCLE_SHARE;

// Every entry of shares.json in file order, "home" included when present. On success
// *ppShares holds the returned number of entries (NULL when 0; a missing file has
// none); free it with ORVARecycleShareListFree. Negative on failure.
int ORVARecycleShareListGet(PORVA_RECYCLE_SHARE* ppShares);
void ORVARecycleShareListFree(PORVA_RECYCLE_SHARE pShares, int count);

#ifdef __cplusplus
}
#endif
