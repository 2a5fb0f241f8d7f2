// zepthread.h - ZEPHThread, a thread its creator can wait for and close, and zepThreadExit.
//
// The object knows two things: whether it holds a thread, and whether that thread must be waited
// for before the object can be closed (it was created joinable and nobody has waited yet). It
// says nothing about whether the thread still runs: one that isn't joinable may end at any time.
//
//   empty --create--> created (joinable if asked) --wait--> created, not joinable --close--> empty
//
// A refused call never changes the state. The object can be used again once closed. The
// destructor closes an object that holds a thread; for a joinable one that hasn't been waited
// for, that close is refused (ECF_THREAD_MUST_WAIT, logged) and the thread's handle stays open.
#ifndef ZEPTHREAD_H
#define ZEPTHREAD_H

#include "zeptypes.h"

// ZEPThreadParam::flags
#define ZEP_THREAD_JOINABLE 0x1u

struct ZEPThreadParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 flags = 0;      // ZEP_THREAD_JOINABLE; other bits aren't read
    Uint32 stackSize = 0;  // bytes; 0 for the system's default, a smaller size than a thread
                           // can run in is raised to that
};

typedef void (*ZEPThreadStart)(void* arg);

class ZEP_EXPORT ZEPHThread {
public:
    ZEPHThread() = default;
    ~ZEPHThread();
    ZEPHThread(const ZEPHThread&) = delete;
    ZEPHThread& operator=(const ZEPHThread&) = delete;

    // Starts start(arg) on a new thread. `id`, if given, receives the thread's identifier (the
    // one zepThreadID() gives on that thread). The thread's exit code is always 0.
    Uint32 create(ZEPThreadStart start, void* arg, const ZEPThreadParam* param, Uint32* id);

    // Waits until a joinable thread has ended; a thread can be waited for once.
    Uint32 wait();

    // Lets go of the thread; refused for a joinable thread that hasn't been waited for.
    Uint32 close();

    Uint32 id() const { return id_; }
    void* handle() const { return handle_; }
    bool isCreated() const { return created_ != 0; }
    bool isJoinable() const { return joinable_ != 0; }

private:
    Uint32 id_ = 0;
    void* handle_ = nullptr;
    Bool created_ = 0;
    Bool joinable_ = 0;
};

ZEP_BEGIN_C

// Ends the calling thread at once, with exit code 0. Doesn't return.
[[noreturn]] ZEP_EXPORT void zepThreadExit(void);

ZEP_END_C

#endif
