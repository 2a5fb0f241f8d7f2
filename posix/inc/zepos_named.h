// zepos_named.h - named kernel objects: one layer under file mappings, semaphores, events and
// mutexes.
//
// The library's callers expect objects found by name with the platform's lifetime: creating a
// name that exists opens it (last error 183), opening a missing name fails with 2, and the
// object lives while any process holds it (a handle or a mapped view) and is gone after the last
// holder, also when holders die by SIGKILL. Linux has no such object, so this layer builds one
// on a shared-memory object per name; docs/ipc.md gives the protocol (names, liveness locks, the
// order of steps and how each race ends).
//
// A kind's stand-ins (CreateFileMappingA, CreateSemaphoreA, CreateEventA, ...) keep their state
// in the object's block: futex words for the waitable kinds, the caller's bytes for a mapping.
#ifndef ZEPOS_NAMED_H
#define ZEPOS_NAMED_H

#include <stddef.h>

#include "zeptypes.h"

namespace zepos {

// Kinds have name spaces of their own: a semaphore and an event of one name are two objects.
enum class NamedKind : Uint32 {
    FileMapping = 1,
    Semaphore = 2,
    Event = 3,
    Mutex = 4,
};

// One holder's reference to an object: it keeps the object alive until NamedClose.
struct NamedObject;

// Runs on a fresh block (zero-filled) before any other process can open the object.
typedef void (*NamedInit)(void* block, void* arg);

// Creates the object `name` of `kind` with a block of `bytes`, or opens it if it exists: then
// the last error is 183 and the existing block (with its size) stands; otherwise the last error is
// 0. The block's memory is reserved at creation, so a full file system fails here (112 or 8) and
// never later with a signal. `securityAttributes` is the library's SECURITY_ATTRIBUTES (null:
// open to every local user, whatever the umask; inheritance decides close-on-exec). A null name
// makes an unnamed object that only this process (and its forks) can reach. Null on failure, with
// the last error: 5 for another user's object that may not be opened, 123 for a name that
// can't be an object name.
NamedObject* NamedCreate(NamedKind kind, const char* name, size_t bytes,
                         const void* securityAttributes, NamedInit init, void* arg);

// Opens the existing object `name` of `kind`; null with 2 when there is none (a stale object
// left by dead holders counts as none), 5 when it may not be opened.
NamedObject* NamedOpen(NamedKind kind, const char* name, BOOL inheritHandle);

// The object's block, mapped read-write in this process for as long as the reference lives, and
// its size in bytes.
void* NamedBlock(NamedObject* object);
size_t NamedBytes(NamedObject* object);

// Drops the reference; the last holder's close removes the object from the system.
void NamedClose(NamedObject* object);

}  // namespace zepos

#endif
