// The one size knob of the stress tests (ring, trace, log, allocator): ZEP_STRESS multiplies the
// records, rounds and operations they run. Unset it is 1 (seconds, as in CI); scripts/stress.sh
// runs 50 (minutes). Helper processes read the same variable, which they inherit.
#pragma once

#include <stdlib.h>

#include "zeptypes.h"

inline Uint32 zeptestStress() {
    const char* s = getenv("ZEP_STRESS");
    const long v = s ? atol(s) : 1;
    return v < 1 ? 1u : v > 1000 ? 1000u : static_cast<Uint32>(v);
}
