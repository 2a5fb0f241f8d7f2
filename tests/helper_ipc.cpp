// helper_ipc.cpp - a second (third, ...) process for the IPC tests, driven one command a line on
// its standard input, one answer a line on its standard output.
//
//   lc KIND NAME BYTES     NamedCreate          -> "ok LASTERROR SLOT BYTES" | "fail LASTERROR"
//   lo KIND NAME           NamedOpen            -> the same
//   lw SLOT OFFSET VALUE   a byte into the block -> "ok"
//   lr SLOT OFFSET         a byte of the block   -> "v VALUE"
//   lx SLOT                NamedClose           -> "ok"
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

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

}  // namespace

int main() {
    char line[1024];
    setvbuf(stdout, nullptr, _IONBF, 0);
    while (fgets(line, sizeof line, stdin) != nullptr) {
        char cmd[16] = {}, name[600] = {};
        unsigned long a = 0, b = 0, c = 0;
        if (sscanf(line, "lc %lu %599s %lu", &a, name, &b) == 3) {
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
