// make_seeds <corpus dir> <zepdemo's log>: writes the fuzz targets' seeds, made by the library:
// ring dumps of a ring that wrapped and of one drained by chunks, trace dumps of both kinds in the
// short forms the targets take, masks steps, texts, a log and a trap file. scripts/fuzz.sh --seeds
// runs it.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <signal.h>
#include <sys/stat.h>
#include <ucontext.h>

#include <string>
#include <vector>

#include "zep.h"

namespace {

std::string dir;

void put(const std::string& target, const std::string& name, const std::string& bytes) {
    mkdir((dir + "/" + target).c_str(), 0755);
    FILE* f = fopen((dir + "/" + target + "/" + name).c_str(), "wb");
    if (!f || fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) abort();
    fclose(f);
}

std::string raw(const void* p, size_t n) {
    return std::string(static_cast<const char*>(p), n);
}

constexpr Uint32 kRing = 0x80000;

// Records of 1 to 5 slots until the ring has wrapped by about `past` slots.
void fill(RamboCB* ring, Uint32 past) {
    for (Uint32 k = 0; ring->nextSequence < kRing / RAMBO_SLOT_SIZE + past; ++k) {
        RamboReservation r;
        const Uint32 bytes = (k % 5 + 1) * RAMBO_SLOT_SIZE - 12;
        void* p = ramboReserveSlots(ring, bytes, &r);
        memset(p, 'a' + k % 26, bytes);
        memcpy(p, &k, 4);
        ramboSync(ring, &r);
    }
}

void ringSeeds() {
    std::vector<Uint8> mem(ramboGetAllocSize(kRing) + 64);
    RamboCB* ring = reinterpret_cast<RamboCB*>(mem.data());
    if (ramboInitialize(ring, kRing, RAMBO_MODE_WRAP) != 0) abort();
    fill(ring, 40);
    RamboDumpHeader h;
    void* slots;
    Uint32 size;
    RamboDumpTail tail;
    ramboGetDumpHeaderBuffer(ring, 1, &h, &slots, &size);
    ramboGetDumpTail(ring, &tail);
    // The short form: the slots that wrapped, the tail (fuzz_common.h lays it out whole).
    put("rambodump", "wrapped", raw(&h, sizeof h) + raw(slots, 48 * 64) + raw(&tail, sizeof tail));

    if (ramboInitialize(ring, kRing, RAMBO_MODE_CHUNKED) != 0) abort();
    for (Uint32 k = 0; k < 30; ++k) {
        RamboReservation r;
        const Uint32 bytes = (k % 3 + 1) * RAMBO_SLOT_SIZE - 12;
        memset(ramboReserveSlots(ring, bytes, &r), 'A' + k, bytes);
        ramboSync(ring, &r);
    }
    ramboGetDumpHeaderBuffer(ring, 0, &h, &slots, &size);
    put("rambodump", "auto", raw(&h, sizeof h) + raw(slots, ring->nextSequence * 64));
}

void emit() {
    const Uint32 F = ZEPFN_zepFileRename, G = ZEPFN_zepFileDelete;
    const char path[] = "C:\\dir\\file.txt";
    for (Uint64 t = 1; t <= 3; ++t) {
        _gtraceEntry(t, F);
        _gtraceVar(t, F, 10, 1, 2, 0u, Uint32(sizeof path), path, 0u, 4u, &t);
        _gtraceEntryVar(t, G, 1, 0u, Uint32(sizeof path), path);
        const Uint32 rc = ECF_FILE_DOESNT_EXIST;
        _gtraceErrorVar(t, G, 30, 2, 5, 6, 1, 1u, 4u, uintptr_t{0x1234});
        _gtraceExit(t, G, &rc, 0, 0);
        _gtraceMarker(t, F, 40, 0x10007);
        _gtraceCorrelatorVar(t, F, 50, 7, 1, 2, 0);
        _gtraceExit(t, F, &rc, 1, 2);
    }
}

void traceSeeds() {
    for (Uint32 mode : {GTRACE_MODE_WRAP, GTRACE_MODE_COUNTING}) {
        GTCBOptions* o = new GTCBOptions;
        o->bufferSize = kRing;
        o->modeBits = mode;
        o->flags = GTRACE_FLAG_TIMESTAMP;
        std::vector<Uint8> mem(gtraceGetAllocSize(kRing) + 64);
        GTCB* cb = reinterpret_cast<GTCB*>((reinterpret_cast<uintptr_t>(mem.data()) + 63) & ~63ul);
        if (gtraceInitialize(cb, o) != 0 || gtraceAttach(cb, 77, nullptr, nullptr) != 0 ||
            gtraceEnable() != 0)
            abort();
        emit();
        gtraceDisable();
        std::vector<Uint8> header(sizeof(GTDumpHeader));
        void* store;
        Uint32 size;
        if (gtraceGetDumpHeaderBuffer(1, reinterpret_cast<GTDumpHeader*>(header.data()), &store,
                                      &size) != 0)
            abort();
        RamboDumpTail tail{};
        gtraceGetDumpTail(&tail);
        // The target's form: a kind byte, the header's first 128 and last 32 bytes, the store.
        std::string seed(1, mode == GTRACE_MODE_COUNTING ? 1 : 0);
        seed += raw(header.data(), 128) + raw(header.data() + header.size() - 32, 32);
        if (mode == GTRACE_MODE_COUNTING) {
            // Only the entries in use, packed: the walker goes by position, not by hash.
            const GTCountEntry* e = static_cast<const GTCountEntry*>(store);
            for (Uint32 n = 0; n < size / sizeof *e; ++n)
                if (e[n].functionID != 0) seed += raw(&e[n], sizeof *e);
            put("gtracedump", "counting", seed);
        } else {
            put("gtracedump", "ring", seed + raw(store, 64 * 64) + raw(&tail, sizeof tail));
        }
        gtraceDetach();
        delete o;
    }
}

void maskSeeds() {
    // Tests of the points the mask was built with, then a chain turned into a loop and tested.
    std::string tests;
    for (Uint32 f : {0x16u, 0x20u, 0x31u, 0x45u, 0x5u}) {
        const Uint32 id = (1u << 27) | (3u << 19) | (2u << 16) | f;
        const Uint16 probe = 10;
        tests += '\1' + raw(&id, 4) + '\2' + raw(&probe, 2);
    }
    put("gtmask", "tests", tests);
    const Uint32 at = offsetof(GTM_TRC_MASK, probes) + offsetof(GTMProbeEntry, next) + 24;
    const Uint16 loop = 1;
    put("gtmask", "damaged", '\0' + raw(&at, 4) + '\2' + raw(&loop, 2) + tests);
    const Uint32 id = (1u << 27) | (2u << 19) | 0x9;
    const Uint16 probe = 20;
    put("gtmask", "changes",
        '\2' + raw(&id, 4) + raw(&probe, 2) + '\1' + '\3' + raw(&id, 4) + raw(&probe, 2) + '\1' +
            tests);
}

void textSeeds() {
    const char* decimals[] = {"1.5E+3",
                              "-0",
                              "NaN",
                              "-sNaN123",
                              "Infinity",
                              "0.000001",
                              "12345678901234567890123456789012345678",
                              "1E-6176",
                              "9.99E+6144",
                              "  7",
                              "+.5e-3"};
    int i = 0;
    for (const char* d : decimals) put("decimal", "d" + std::to_string(i++), '\0' + std::string(d));
    put("decimal", "halfeven", '\3' + std::string("2.50000000000000005"));
    const char* ints[] = {"  -0x1F",
                          "+-5",
                          "0x",
                          "18446744073709551616",
                          "-9223372036854775809",
                          "0777",
                          "zz",
                          "-18446744073709551616",
                          "   ",
                          "101"};
    const char bases[] = {0, 10, 16, 0, 10, 0, 36, 10, 10, 2};
    for (i = 0; i < 10; ++i)
        put("inttext", "i" + std::to_string(i), bases[i] + std::string(ints[i]));
    const char* envs[] = {",FULL",         "dir,LEAKS",       "a,,light",
                          "dir,all,extra", "dir,CORRUPTIONS", "dir,idle"};
    i = 0;
    for (const char* e : envs) put("memdbgenv", "e" + std::to_string(i++), e);
}

void logSeeds(const char* log) {
    FILE* f = fopen(log, "rb");
    if (!f) abort();
    std::string text;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) text.append(buf, n);
    fclose(f);
    put("logwalk", "demo", text);
    // Two writers without the lock, and a cut record.
    put("logwalk", "damaged", text.substr(0, text.size() / 2) + text + text.substr(0, 700));
}

// A trap file of this process, with a short environment of its own (the seeds are committed), and
// one cut inside its stack section.
void trapSeeds() {
    clearenv();
    setenv("ZEP_SEED", "trap", 1);
    const std::string path = dir + "/trap.tmp";
    ucontext_t uc;
    getcontext(&uc);
    siginfo_t si;
    memset(&si, 0, sizeof si);
    si.si_signo = SIGSEGV;
    {
        ZEPTrapFile t;
        if (t.open(path.c_str(), ZEP_PRIMFILE_CREATE) != 0) abort();
        t.initialize(0, &si, &uc, nullptr);
        t.dump(ZEP_TRAP_ALL_BUT_MEMORY, 0, &si, &uc);
        t.close();
    }
    FILE* f = fopen(path.c_str(), "rb");
    if (!f) abort();
    std::string bytes;
    char buf[4096];
    for (size_t n; (n = fread(buf, 1, sizeof buf, f)) > 0;) bytes.append(buf, n);
    fclose(f);
    remove(path.c_str());
    put("trapfile", "crash", bytes);
    put("trapfile", "cut", bytes.substr(0, bytes.size() * 3 / 4));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        fprintf(stderr, "usage: make_seeds <corpus dir> <log file>\n");
        return 2;
    }
    dir = argv[1];
    mkdir(dir.c_str(), 0755);
    ringSeeds();
    traceSeeds();
    maskSeeds();
    textSeeds();
    logSeeds(argv[2]);
    trapSeeds();
    return 0;
}
