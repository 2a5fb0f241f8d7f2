// zepipcmemory.h - shared memory: ZEPHIPCMemory (a block named by a resource identifier),
// ZEPHIPCPrivateMemory (a block that finds itself a unique name and carries it), and
// ZEPHIPCMemoryEx (a block named by a short plain name, with 64-bit sizes and read-only views).
//
// The caller's bytes start at offset 0 of every view; neither size nor owner is kept in them.
// A block lives while any process has it open or mapped: destroy() and detach() take it from the
// calling process only, and a create of the same name fails until the last user has gone, also
// when users die without detaching. The objects have no destructors that release anything.
// docs/ipc.md tells how blocks are found and kept on Linux.
#ifndef ZEPIPCMEMORY_H
#define ZEPIPCMEMORY_H

#include "zepipc.h"

struct ZEPIPCMemoryCreateParam {
    Uint32 version = ZEP_VERSION_WORD;
    ZEPIPCResID resID;        // the block's name; ZEPHIPCPrivateMemory::create writes it
    Uint32 memorySize = 0;    // bytes; the view is whole pages
    void* address = nullptr;  // where the view must be; null lets the system choose
    Uint32 accessMode = 0;    // shown in failure records only
    Uint32 flags = 0;         // shown in failure records only
};

class ZEP_EXPORT ZEPHIPCMemory {
public:
    ZEPHIPCMemory();

    // Creates the block and maps it. A name that exists gives ECF_MEM_EXISTS and leaves that
    // block alone: create never joins.
    Uint32 create(const ZEPIPCMemoryCreateParam* param);
    // Maps the block of `resID`, at `address` exactly if it isn't null (or fails).
    // ECF_MEM_DOESNT_EXIST for a name that isn't there or may not be opened.
    Uint32 attach(const ZEPIPCResID* resID, const void* address);
    Uint32 detach();
    Uint32 detachAndDestroy();
    // detach() with its result dropped: always 0.
    Uint32 destroy();
    Uint32 getAddress(void** address);
    // The mapped region: whole pages, not the size asked for at create.
    Uint32 getMemorySize(Uint32* size);
    Uint32 authorize(const ZEPIPCSecurityParam* param);
    Bool isAttached() const { return address_ != nullptr; }

private:
    friend class ZEPHIPCPrivateMemory;
    Uint32 detachIn(Uint32 functionId);

    void* mapping_;  // the platform's handle, all ones for none
    void* address_;  // the view in this process
};

// A block only its creator knows the name of, until it hands a byte copy of this object to
// another process, which calls remoteInitialization() and then attach().
class ZEP_EXPORT ZEPHIPCPrivateMemory {
public:
    // Finds a free name "ZEPEIPC<seed>PRIVMEMPID<pid>TID<tid>" (seeds 0 to 99), writes it into
    // param->resID and creates the block under it.
    Uint32 create(ZEPIPCMemoryCreateParam* param);
    // In the receiving process, on the byte copy: forgets the sender's handle and view.
    Uint32 remoteInitialization();
    Uint32 attach(const void* address);
    Uint32 destroy() { return memory_.destroy(); }
    Uint32 detach() { return memory_.detach(); }
    Uint32 getAddress(void** address) { return memory_.getAddress(address); }
    Uint32 getMemorySize(Uint32* size) { return memory_.getMemorySize(size); }
    Uint32 authorize(const ZEPIPCSecurityParam* param) { return memory_.authorize(param); }
    Bool isAttached() const { return memory_.isAttached(); }

private:
    ZEPHIPCMemory memory_;
    ZEPIPCResID resID_;
};

// ZEPIPCMemoryExCreateParam::flags and ZEPIPCMemoryExAttachParam::flags
#define ZEP_IPC_MEMEX_MUST_NOT_EXIST 0x1ull  // create only: refuse a block that exists
#define ZEP_IPC_MEMEX_READ 0x4ull            // a read-only view; wins over READ_WRITE
#define ZEP_IPC_MEMEX_READ_WRITE 0x8ull

// Longest plain name: the derived name adds "ZEPEIPC120".
#define ZEP_IPC_MEMEX_NAME_MAX 253

struct ZEPIPCMemoryExCreateParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* name = nullptr;  // plain name: 1 to 253 characters, no '\'
    Uint64 size = 0;             // not 0
    Uint64 flags = 0;            // not 0
    void* address = nullptr;     // where the view must be; null lets the system choose
    Uint32 accessMode = 0;       // not 0; shown in failure records
    Uint64 reserved = 0;         // shown in failure records
};

struct ZEPIPCMemoryExAttachParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* name = nullptr;
    Uint64 flags = 0;
    void* address = nullptr;
    Uint64 reserved = 0;
};

struct ZEPIPCMemoryExInfo {
    Uint32 version = ZEP_VERSION_WORD;
    void* address = nullptr;  // the view
};

class ZEP_EXPORT ZEPHIPCMemoryEx {
public:
    ZEPHIPCMemoryEx();
    // Forgets the block without detaching it.
    ~ZEPHIPCMemoryEx();

    // Creates the block, or joins the one of that name unless ZEP_IPC_MEMEX_MUST_NOT_EXIST asks
    // otherwise (then ECF_EXISTS). An attached object refuses with
    // ECF_INVALID_INVOCATION_SEQUENCE and stays attached.
    Uint32 create(const ZEPIPCMemoryExCreateParam* param, ZEPIPCMemoryExInfo* info);
    // ECF_FILE_DOESNT_EXIST for a block that isn't there.
    Uint32 attach(const ZEPIPCMemoryExAttachParam* param, ZEPIPCMemoryExInfo* info);
    Uint32 detach();
    Uint32 destroy();

private:
    void reset();
    void abandon(Uint32 functionId, bool ownsMapping);
    Uint32 detachIn(Uint32 functionId);

    void* mapping_;
    Char name_[ZEP_IPC_NAME_LENGTH + 1];
    void* address_;
    Uint64 size_;
};

#endif
