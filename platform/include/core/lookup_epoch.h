// Reuse of lookups that read system files (liborvacore.so.7).
//
// User lookups and the time zone read /etc/passwd, nsswitch.conf and the zone file on
// every call. Within one request their answers may be reused: the server and the web
// API framework start a new epoch per request, and a cached answer is used only in
// the epoch that made it. A process that never starts an epoch reuses nothing, so
// tools, the daemon and tests always see the files as they are.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// 0 until the first ORVALookupEpochNext of the process.
uint64_t ORVALookupEpoch(void);
void ORVALookupEpochNext(void);

#ifdef __cplusplus
}
#endif
