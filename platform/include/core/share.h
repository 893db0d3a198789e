// Shared folders (liborvacore.so.7): etc/orva/shares.json, an array of
// {"name", "path", "recycle_bin"}.
#pragma once

#include "core/kelc.h"

#ifdef __cplusplus
extern "C" {
#endif

// Appends the names of the shared folders, in the file's order, to *ppList (which may
// move as it grows). `flags` selects kinds of share; every kind this platform has is
// included by any non-zero value. Returns the number of names; negative on failure.
int ORVAShareEnum(PKELC_SZLIST* ppList, unsigned int flags);

#ifdef __cplusplus
}
#endif
