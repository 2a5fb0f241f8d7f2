// helper_ipc.cpp - a second (third, ...) process for the IPC tests, driven one command a line on
// its standard input, one answer a line on its standard output.
//
//   lc KIND NAME BYTES     NamedCreate          -> "ok LASTERROR SLOT BYTES" | "fail LASTERROR"
//   lo KIND NAME           NamedOpen            -> the same
//   lw SLOT OFFSET VALUE   a byte into the block -> "ok"
//   lr SLOT OFFSET         a byte of the block   -> "v VALUE"
//   lx SLOT                NamedClose           -> "ok"
//   mc NAME SIZE ADDR      ZEPHIPCMemory::create (ADDR hex, 0: any) -> "RC ADDRESS"
//   ma NAME ADDR / mb ...  attach of the first / second object      -> "RC ADDRESS"
//   md / mdd / mbd         destroy / detach of the first, destroy of the second -> "RC"
//   mw OFFSET VALUE, mr OFFSET   a byte of the first object's (or the private) block
//   pa HEX                 a byte copy of a ZEPHIPCPrivateMemory: remoteInitialization, attach
//   pd                     its destroy
//   race NAME CONTROL SECONDS   create/attach/destroy one name -> "done CREATES ATTACHES BAD"
#include <stdio.h>
#include <stdlib.h>
#include <sched.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "zep.h"
#include "zepos.h"

namespace {

zepos::NamedObject* s_slots[64];

int freeSlot() {
    for (int i = 0; i < 64; ++i)
        if (s_slots[i] == nullptr) return i;
    return -1;
}

void answerObject(zepos::NamedObject* o) {
    if (o == nullptr) {
        printf("fail %u\n", zepos::GetLastError());
        return;
    }
    const Uint32 err = zepos::GetLastError();
    int slot = freeSlot();
    s_slots[slot] = o;
    printf("ok %u %d %zu\n", err, slot, zepos::NamedBytes(o));
}

// ---- the shared-memory classes

ZEPHIPCMemory s_memory, s_second;
ZEPHIPCPrivateMemory s_private;
unsigned char* s_at = nullptr;

ZEPIPCResID resIdOf(const char* name) {
    ZEPIPCResIDParam p;
    p.path = name;
    p.seed = 1;
    ZEPIPCResID id;
    zepIPCGetResID(&p, &id);
    return id;
}

void* addressArg(const char* text) {
    return reinterpret_cast<void*>(static_cast<uintptr_t>(strtoull(text, nullptr, 16)));
}

struct RaceControl {  // the test's block that every racer attaches
    Uint32 lock;
    Uint32 holders;  // racers that hold a block, counted after they know its stamp
    Uint64 liveStamp;
    Uint32 violations;
    Uint32 creates;  // by all racers
};

void lockControl(RaceControl* c) {
    while (__atomic_exchange_n(&c->lock, 1, __ATOMIC_ACQUIRE) != 0) sched_yield();
}
void unlockControl(RaceControl* c) {
    __atomic_store_n(&c->lock, 0, __ATOMIC_RELEASE);
}

// Creates, attaches and destroys one name for `seconds`: a create may succeed only when no
// racer holds a block, and an attacher must see the stamp of the creator it joined.
void race(const char* name, const char* control, int seconds) {
    ZEPHIPCMemory ctl;
    ZEPIPCResID ctlId = resIdOf(control);
    if (ctl.attach(&ctlId, nullptr) != 0) {
        printf("fail control\n");
        return;
    }
    void* ctlAt;
    ctl.getAddress(&ctlAt);
    RaceControl* c = static_cast<RaceControl*>(ctlAt);
    const ZEPIPCResID id = resIdOf(name);
    ZEPIPCMemoryCreateParam cp;
    cp.resID = id;
    cp.memorySize = 4096;
    unsigned creates = 0, attaches = 0, counter = 0, bad = 0;
    const time_t end = time(nullptr) + seconds;
    srand(static_cast<unsigned>(getpid()));
    // On a loaded machine attachers may overlap for long: the race goes on (up to 30 s more)
    // until the name has been made anew a few times.
    while (time(nullptr) < end ||
           (__atomic_load_n(&c->creates, __ATOMIC_RELAXED) <= 8 && time(nullptr) < end + 30)) {
        // A pause between turns, so that the name is free now and then and creates go on.
        usleep(static_cast<useconds_t>(rand() % 400));
        ZEPHIPCMemory m;
        void* at;
        if (m.create(&cp) == 0) {
            const Uint64 stamp = (static_cast<Uint64>(getpid()) << 32) | ++counter;
            lockControl(c);
            if (c->holders != 0) ++c->violations;
            c->liveStamp = stamp;
            c->holders = 1;
            unlockControl(c);
            m.getAddress(&at);
            __atomic_store_n(static_cast<Uint64*>(at), stamp, __ATOMIC_RELEASE);
            ++creates;
            __atomic_add_fetch(&c->creates, 1, __ATOMIC_RELAXED);
            for (int i = 0; i < 50; ++i) sched_yield();
            if (__atomic_load_n(static_cast<Uint64*>(at), __ATOMIC_ACQUIRE) != stamp) ++bad;
            lockControl(c);
            --c->holders;
            unlockControl(c);
            m.destroy();
        } else if (m.attach(&id, nullptr) == 0) {
            m.getAddress(&at);
            Uint64 stamp;
            while ((stamp = __atomic_load_n(static_cast<Uint64*>(at), __ATOMIC_ACQUIRE)) == 0)
                sched_yield();
            lockControl(c);
            if (c->liveStamp != stamp) ++c->violations;
            ++c->holders;
            unlockControl(c);
            ++attaches;
            for (int i = 0; i < 20; ++i) sched_yield();
            if (__atomic_load_n(static_cast<Uint64*>(at), __ATOMIC_ACQUIRE) != stamp) ++bad;
            lockControl(c);
            --c->holders;
            unlockControl(c);
            m.detach();
        }
    }
    ctl.detach();
    printf("done %u %u %u\n", creates, attaches, bad);
}

bool memoryCommand(const char* line) {
    char name[600] = {}, text[4096] = {};
    unsigned long a = 0, b = 0;
    if (sscanf(line, "mc %599s %lu %4095s", name, &a, text) == 3) {
        ZEPIPCMemoryCreateParam p;
        p.resID = resIdOf(name);
        p.memorySize = static_cast<Uint32>(a);
        p.address = addressArg(text);
        Uint32 rc = s_memory.create(&p);
        s_memory.getAddress(reinterpret_cast<void**>(&s_at));
        printf("%X %p\n", rc, static_cast<void*>(s_at));
    } else if (sscanf(line, "ma %599s %4095s", name, text) == 2) {
        ZEPIPCResID id = resIdOf(name);
        Uint32 rc = s_memory.attach(&id, addressArg(text));
        s_memory.getAddress(reinterpret_cast<void**>(&s_at));
        printf("%X %p\n", rc, static_cast<void*>(s_at));
    } else if (sscanf(line, "mb %599s %4095s", name, text) == 2) {
        ZEPIPCResID id = resIdOf(name);
        void* at;
        Uint32 rc = s_second.attach(&id, addressArg(text));
        s_second.getAddress(&at);
        printf("%X %p\n", rc, at);
    } else if (strcmp(line, "mbd\n") == 0) {
        printf("%X\n", s_second.destroy());
    } else if (strcmp(line, "md\n") == 0) {
        printf("%X\n", s_memory.destroy());
    } else if (strcmp(line, "mdd\n") == 0) {
        printf("%X\n", s_memory.detach());
    } else if (sscanf(line, "mw %lu %lu", &a, &b) == 2) {
        s_at[a] = static_cast<unsigned char>(b);
        printf("ok\n");
    } else if (sscanf(line, "mr %lu", &a) == 1) {
        printf("v %u\n", s_at[a]);
    } else if (sscanf(line, "pa %4095s", text) == 1) {
        // A byte copy of a ZEPHIPCPrivateMemory, in hex.
        unsigned char* to = reinterpret_cast<unsigned char*>(&s_private);
        for (size_t i = 0; i < sizeof s_private && text[2 * i] && text[2 * i + 1]; ++i) {
            char two[3] = {text[2 * i], text[2 * i + 1], 0};
            to[i] = static_cast<unsigned char>(strtoul(two, nullptr, 16));
        }
        Uint32 rc = s_private.remoteInitialization();
        if (rc == 0) rc = s_private.attach(nullptr);
        s_private.getAddress(reinterpret_cast<void**>(&s_at));
        printf("%X\n", rc);
    } else if (strcmp(line, "pd\n") == 0) {
        printf("%X\n", s_private.destroy());
    } else if (sscanf(line, "race %599s %4095s %lu", name, text, &a) == 3) {
        race(name, text, static_cast<int>(a));
    } else {
        return false;
    }
    return true;
}

}  // namespace

int main() {
    char line[1024];
    setvbuf(stdout, nullptr, _IONBF, 0);
    while (fgets(line, sizeof line, stdin) != nullptr) {
        char cmd[16] = {}, name[600] = {};
        unsigned long a = 0, b = 0, c = 0;
        if (memoryCommand(line)) {
        } else if (sscanf(line, "lc %lu %599s %lu", &a, name, &b) == 3) {
            answerObject(zepos::NamedCreate(static_cast<zepos::NamedKind>(a), name, b, nullptr,
                                            nullptr, nullptr));
        } else if (sscanf(line, "lo %lu %599s", &a, name) == 2) {
            answerObject(zepos::NamedOpen(static_cast<zepos::NamedKind>(a), name, 0));
        } else if (sscanf(line, "lw %lu %lu %lu", &a, &b, &c) == 3) {
            static_cast<unsigned char*>(zepos::NamedBlock(s_slots[a]))[b] =
                static_cast<unsigned char>(c);
            printf("ok\n");
        } else if (sscanf(line, "lr %lu %lu", &a, &b) == 2) {
            printf("v %u\n", static_cast<unsigned char*>(zepos::NamedBlock(s_slots[a]))[b]);
        } else if (sscanf(line, "lx %lu", &a) == 1) {
            zepos::NamedClose(s_slots[a]);
            s_slots[a] = nullptr;
            printf("ok\n");
        } else if (sscanf(line, "%15s", cmd) == 1 && strcmp(cmd, "ping") == 0) {
            printf("pong\n");
        } else {
            printf("? %s", line);
        }
    }
    return 0;
}
