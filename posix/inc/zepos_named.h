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
//
// A child that inherits a reference's descriptor (a fork, or an exec with inheritance asked)
// holds the object with it until it closes the descriptor or ends.
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
// never later with a signal. `securityAttributes` is the library's SECURITY_ATTRIBUTES (zepipc.h;
// null: open to every local user, whatever the umask, and closed on exec; otherwise the
// descriptor's mode, and bInheritHandle decides whether the descriptor survives an exec). A null
// or empty name makes an unnamed object that only this process (and its forks) can reach. Null
// on failure, with the last error: 5 for another user's object that may not be opened, 87 for a
// size of 0, 123 for an object under the name that isn't one of this layer's.
NamedObject* NamedCreate(NamedKind kind, const char* name, size_t bytes,
                         const void* securityAttributes, NamedInit init, void* arg);

// Opens the existing object `name` of `kind`; null with 2 when there is none (a stale object
// left by dead holders counts as none), 5 when it may not be opened.
NamedObject* NamedOpen(NamedKind kind, const char* name, BOOL inheritHandle);

// The object's block, mapped read-write in this process for as long as the reference lives, and
// its size in bytes. The block is mapped on the first call (null with the last error if that
// fails); a kind whose handles never touch it (a file mapping, viewed by views of its own) pays
// nothing for it.
void* NamedBlock(NamedObject* object);
size_t NamedBytes(NamedObject* object);

// Drops the reference; the last holder's close removes the object from the system.
void NamedClose(NamedObject* object);

// ---- for views that keep an object alive on their own (MapViewOfFileEx)

// One more reference to the same holder, dropped by NamedClose. A view takes one so that the
// object outlives the handle it was mapped from.
void NamedRetain(NamedObject* object);

// The descriptor that holds the object, and where the block starts in it (a whole number of
// pages): a view maps the descriptor from there.
int NamedDescriptor(NamedObject* object);
Uint64 NamedBlockOffset(NamedObject* object);

// The Linux object name for (kind, name) without the leading "/", into `out` (at least
// NAMED_LINUX_NAME_SIZE bytes); exposed for tests and tools that look at the file system.
inline constexpr size_t NAMED_LINUX_NAME_SIZE = 256;
void NamedLinuxName(NamedKind kind, const char* name, char* out);

// The directory that holds the objects.
inline constexpr const char* NAMED_DIRECTORY = "/dev/shm";

}  // namespace zepos

#endif
