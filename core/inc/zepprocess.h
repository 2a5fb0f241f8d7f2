// zepprocess.h - ZEPHProcess, which starts a child program detached or waited for, and the free
// functions zepProcessParentID and zepProcessExit.
//
// The command line is the program in double quotes (unless it starts with one), a blank, and the
// arguments as they stand, separated by blanks: nothing quotes them, so an argument with a blank
// inside reaches the child as two words. The child splits the line by the command-line rules of
// docs/process.md. A child is either forgotten by create() (detached, or neither flag) or waited
// for inside it; the object holds no child between calls and can be used again.
#ifndef ZEPPROCESS_H
#define ZEPPROCESS_H

#include "zeptypes.h"

// ZEPProcessParam::flags; the value must be at most 10.
#define ZEP_PROCESS_DETACHED 0x1u         // a session of its own, out of reach once started
#define ZEP_PROCESS_WAIT 0x2u             // create() returns when the child has ended
#define ZEP_PROCESS_INHERIT_HANDLES 0x4u  // the child gets the descriptors not closed on exec
#define ZEP_PROCESS_MAX_FLAGS 10u

struct ZEPProcessParam {
    Uint32 version = ZEP_VERSION_WORD;
    String program = nullptr;         // must not be null
    const Char* arguments = nullptr;  // strings one after the other, ended by an empty one
    void* environment = nullptr;      // "name=value" strings, ended by an empty one; null:
                                      // the caller's environment
    Uint32 flags = 0;                 // ZEP_PROCESS_...; without DETACHED or WAIT reset to 0
};

// The second word is the child's exit code (128 + the signal's number for a child a signal
// ended); the first and third are 0.
struct ZEPProcessStatus {
    Uint32 reserved1;
    Uint32 exitCode;
    Uint32 reserved2;
};

class ZEP_EXPORT ZEPHProcess {
public:
    ZEPHProcess() = default;

    // Starts the child. `processId` receives its identifier: at once, or, with ZEP_PROCESS_WAIT,
    // only if the wait worked. With ZEP_PROCESS_WAIT `status` receives the exit code; a child
    // that fails doesn't make create() fail.
    Uint32 create(ZEPProcessParam* param, Uint32* processId, ZEPProcessStatus* status);

    bool isCreated() const { return created_ != 0; }
    bool isWaiting() const { return waiting_ != 0; }
    Uint32 flags() const { return flags_; }
    void* handle() const { return handle_; }

private:
    Uint32 createProcess(ZEPProcessParam* param, Uint32* processId, ZEPProcessStatus* status);
    Uint32 wait(Uint32 processId, ZEPProcessStatus* status);

    Bool waiting_ = 0;
    Bool created_ = 0;
    Uint32 flags_ = 0;
    void* handle_ = reinterpret_cast<void*>(~static_cast<uintptr_t>(0));
};

ZEP_BEGIN_C

// Always -1: the library gives no parent's identifier.
ZEP_EXPORT Sint32 zepProcessParentID(void);

// Ends the process with `code`, after its exit handlers. Doesn't return.
[[noreturn]] ZEP_EXPORT void zepProcessExit(Uint32 code);

ZEP_END_C

#endif
