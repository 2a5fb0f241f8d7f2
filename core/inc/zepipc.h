// zepipc.h - what every IPC object of the library shares: resource identifiers (the names two
// processes agree on with no other channel), the security attributes objects are created with,
// and the two queries about the current user.
//
// A name is a pure function of a path, a seed, the local-scope choice and the machine's mode:
// "ZEPEIPC<seed>" followed by the path with every ':' and '\' dropped, cut at 261 characters.
// The remote-administration mode that would add "Global\" is never set on Linux, so names never
// carry it. docs/ipc.md tells how a name becomes a Linux object.
#ifndef ZEPIPC_H
#define ZEPIPC_H

#include "zeptypes.h"

#define ZEP_IPC_NAME_LENGTH 261  // characters of a platform object name, without the terminator

// The stamp from which an output ZEPIPCResID's localScope request is honoured.
#define ZEP_IPC_LOCALSCOPE_VERSION ((Uint32)0x09010003u)

// One object's identifier; a value that may be copied and passed to another process.
struct ZEPIPCResID {
    Uint32 version = ZEP_VERSION_WORD;
    Char name[ZEP_IPC_NAME_LENGTH + 1] = {};
};

// A message queue's three names: its memory (seed), receive semaphore (seed + 1) and send
// semaphore (seed + 2).
struct ZEPIPCQueResID {
    Uint32 version = ZEP_VERSION_WORD;
    ZEPIPCResID memory;
    ZEPIPCResID receiveSemaphore;
    ZEPIPCResID sendSemaphore;
};

// The input of the derivations; its own stamp is not tested.
struct ZEPIPCResIDParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;  // null gives an empty name
    Sint32 seed = 0;
    Uint32 reserved = 0;  // copied along, never read
    Bool localScope = 0;  // no global prefix; read when the output's stamp allows it
};

// The input of every authorize(): a stamp, then fields that aren't read.
struct ZEPIPCSecurityParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 reserved[4] = {};
};

// The input of the user queries.
struct ZEPCurrentUserParam {
    Uint32 version = ZEP_VERSION_WORD;
    Uint32 bufferSize = 0;  // bytes of the caller's buffer
    Uint32 reserved = 0;
};

// ---- security attributes, Linux form
//
// The platform's attributes carry a security descriptor and an inheritance flag. Here:
//  - SECURITY_DESCRIPTOR is a 20-byte record (the size of the buffer callers give
//    zepInitSecurityAttributes). InitializeSecurityDescriptor sets Revision 1 and clears the
//    rest; SetSecurityDescriptorDacl with a present, null DACL sets SE_DACL_PRESENT. `Mode`
//    stands for the DACL: 0 (a null DACL, or none) lets every local user open the object, mode
//    0666 whatever the umask; otherwise its low nine bits are the object's permission bits,
//    set exactly (the umask doesn't narrow them). A user that the bits keep out gets access
//    denied (5) when opening the object.
//  - bInheritHandle non-zero: the object's descriptor survives an exec of a child, which then
//    holds the object until it exits or closes the descriptor; zero: closed on exec.
//  - nLength is the size of this record on this build.
// A null attributes pointer given to a creation means mode 0666 and no inheritance.
#define SE_DACL_PRESENT ((Uint16)0x0004u)
#define SE_DACL_DEFAULTED ((Uint16)0x0008u)
#define SECURITY_DESCRIPTOR_REVISION 1u
#define SECURITY_DESCRIPTOR_MIN_LENGTH 20u

struct SECURITY_DESCRIPTOR {
    Uint8 Revision;
    Uint8 Sbz1;
    Uint16 Control;  // SE_DACL_PRESENT, SE_DACL_DEFAULTED
    Uint32 Mode;     // 0: everyone; else permission bits (0600, 0640, ...)
    Uint32 Reserved[3];
};
static_assert(sizeof(SECURITY_DESCRIPTOR) == SECURITY_DESCRIPTOR_MIN_LENGTH,
              "the descriptor fills the 20-byte buffer of its callers");

struct SECURITY_ATTRIBUTES {
    Uint32 nLength;
    void* lpSecurityDescriptor;  // a SECURITY_DESCRIPTOR, or null for everyone
    Sint32 bInheritHandle;
};

ZEP_BEGIN_C

// The name of `param`'s path and seed into `resID`. Null output: ECF_INVALID_PARAMETER; an
// output stamped below 20040702: ECF_INVALID_VERSION.
ZEP_EXPORT Uint32 zepIPCGetResID(const ZEPIPCResIDParam* param, ZEPIPCResID* resID);
ZEP_EXPORT Uint32 zepIPCGetQueResID(const ZEPIPCResIDParam* param, ZEPIPCQueResID* queResID);

// Seeds are the caller's to choose: always ECF_NOT_SUPPORTED, with nothing traced or logged.
ZEP_EXPORT Uint32 zepIPCGenerateSeed(void);

// Makes `attributes` (which must stay valid) the attributes of every object created from now
// on; null goes back to the default. No lock: set it before the objects it should cover.
ZEP_EXPORT void zepSetSecurityAttributesForZEP(SECURITY_ATTRIBUTES* attributes);

// The attributes a creation uses: the override's, or a null DACL built in `descriptor` (20
// bytes, to live as long as the attributes are used) with bInheritHandle 1.
ZEP_EXPORT Uint32 zepInitSecurityAttributes(void* descriptor, SECURITY_ATTRIBUTES* attributes);

// The effective user's name (from the user database, or the decimal user id if it has no
// entry) into `buffer` of param->bufferSize bytes.
ZEP_EXPORT Uint32 zepGetCurrentUserName(const ZEPCurrentUserParam* param, Char* buffer);

// The login session of the process as a decimal number: the kernel's audit session id, which
// every process of one login shares and which daemons started outside any login lack (0 then,
// the number the platform gives its services' session).
ZEP_EXPORT Uint32 zepGetCurrentUserDisplay(const ZEPCurrentUserParam* param, Char* buffer);

ZEP_END_C

#endif
