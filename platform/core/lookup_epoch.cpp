// The lookup epoch: see core/lookup_epoch.h.
#include "core/lookup_epoch.h"

#include <atomic>

namespace {
std::atomic<uint64_t> gEpoch{0};
}

extern "C" {

uint64_t ORVALookupEpoch(void) { return gEpoch.load(std::memory_order_relaxed); }

void ORVALookupEpochNext(void) { gEpoch.fetch_add(1, std::memory_order_relaxed); }

}  // extern "C"
