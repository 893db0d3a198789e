// Recycle-bin service (liborvarecycle.so.7).
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// Switches the recycle bin of `share` on (1) or off (0) in etc/orva/shares.json,
// rewriting the file atomically. "home" names the users' home folders. Negative on
// failure (unknown share, unreadable or unwritable file).
int ORVARecycleStatusSet(const char* share, int enable);

#ifdef __cplusplus
}
#endif
