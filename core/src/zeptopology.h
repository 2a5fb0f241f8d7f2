// zeptopology.h - the processor topology probe (private to the system-information family).
//
// The probe reads the processor's identification instruction on each processor the calling
// thread may use, and so needs the instruction and the affinity calls; they are passed in so
// that the library's tests can run the probe on a made-up machine.
#ifndef ZEPTOPOLOGY_H
#define ZEPTOPOLOGY_H

#include <stdint.h>

#include "zeptypes.h"

// Visible from libzep.so for the library's own tests only; no installed header declares these.
#pragma GCC visibility push(default)

struct ZepTopologyOps {
    void (*cpuid)(Uint32 leaf, Uint32 regs[4]);
    int (*getAffinity)(uintptr_t* processMask, uintptr_t* systemMask);  // non-zero on success
    int (*setAffinity)(uintptr_t processMask);
    void (*yield)();  // lets the thread move to the processor it was just bound to
};

enum : Uint32 { ZEP_VENDOR_UNKNOWN = 0, ZEP_VENDOR_INTEL = 1, ZEP_VENDOR_AMD = 2 };

struct ZepTopology {
    Uint32 vendor;
    Uint32 maxStandardLeaf;
    Uint32 maxExtendedLeaf;
    Uint32 coresPerPackage;
    Uint32 threadsPerCore;  // the degree of threading
    Uint32 packageEntries;  // processors whose package was noted (0 when the probe stopped early)
};

// Runs the probe: threads per core, cores per package and what they were worked out from. The
// affinity is put back before it returns, whatever happened.
ZepTopology zepProbeTopology(const ZepTopologyOps* ops);

// The ops of this machine.
const ZepTopologyOps* zepMachineTopologyOps();

// Bytes in whole mebibytes, rounded up; the low 32 bits of the count.
Sint32 zepBytesToMB(Uint64 bytes);

#pragma GCC visibility pop

#endif
