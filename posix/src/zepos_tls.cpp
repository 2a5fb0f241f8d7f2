// zepos_tls.cpp - thread-local slots on POSIX thread-specific data keys.
//
// pthread_getspecific doesn't check its key, and glibc answers any key below its limit, handed
// out or not; the platform refuses an index it didn't hand out. So the layer keeps its own bitmap
// of the keys it holds, and tests it before each use: one relaxed load on the slot reader's path.
#include "zepos.h"

#include <errno.h>
#include <limits.h>
#include <pthread.h>

namespace zepos {

namespace {

constexpr Uint32 kKeyLimit = PTHREAD_KEYS_MAX;
Uint64 s_held[(kKeyLimit + 63) / 64];

bool held(Uint32 index) {
    if (index >= kKeyLimit) return false;
    return (__atomic_load_n(&s_held[index / 64], __ATOMIC_ACQUIRE) >> (index % 64)) & 1u;
}

void mark(Uint32 index, bool on) {
    Uint64 bit = Uint64{1} << (index % 64);
    if (on)
        __atomic_fetch_or(&s_held[index / 64], bit, __ATOMIC_RELEASE);
    else
        __atomic_fetch_and(&s_held[index / 64], ~bit, __ATOMIC_RELEASE);
}

}  // namespace

Uint32 TlsAlloc() {
    pthread_key_t key;
    int err = pthread_key_create(&key, nullptr);
    if (err != 0) {
        SetLastError(err == EAGAIN ? ERROR_NOT_ENOUGH_MEMORY : TranslateErrno(err));
        return TLS_OUT_OF_INDEXES;
    }
    if (key >= kKeyLimit) {  // not on glibc, whose keys stay below the limit
        pthread_key_delete(key);
        SetLastError(ERROR_NOT_ENOUGH_MEMORY);
        return TLS_OUT_OF_INDEXES;
    }
    mark(key, true);
    return static_cast<Uint32>(key);
}

BOOL TlsFree(Uint32 index) {
    if (!held(index)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    mark(index, false);
    int err = pthread_key_delete(static_cast<pthread_key_t>(index));
    if (err != 0) {
        SetLastError(TranslateErrno(err));
        return 0;
    }
    return 1;
}

void* TlsGetValue(Uint32 index) {
    if (!held(index)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    void* value = pthread_getspecific(static_cast<pthread_key_t>(index));
    SetLastError(ERROR_SUCCESS);
    return value;
}

BOOL TlsSetValue(Uint32 index, void* value) {
    if (!held(index)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    int err = pthread_setspecific(static_cast<pthread_key_t>(index), value);
    if (err != 0) {
        SetLastError(TranslateErrno(err));
        return 0;
    }
    return 1;
}

}  // namespace zepos
