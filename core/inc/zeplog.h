// zeplog.h - the diagnostic log: facilities and the three writing calls.
//
// The library logs only to the default facility (a null facility pointer), which stays closed
// until the product opens it: a process that opens no facility logs nothing, and a writing call
// on a closed facility returns ECF_INVALID_PARAMETER without a record.
//
// A record is text in CR LF lines. In a file every record carries its own position: the field
// "I<offset>H<length>" at byte 33 of the record gives the file offset of the record's first
// byte behind its opening CR LF, and the record's length from there. Appends from any number of
// processes are serialised by a lock on the file around the size read and the write, so the
// fields are exact and a reader can walk and check the file by them.
//
// The writing calls never block on each other's output: a record that arrives while another
// thread of the process is writing one is dropped (result 0). Nothing is allocated; a record is
// at most 4,095 bytes, cut in its items if longer.
#ifndef ZEPLOG_H
#define ZEPLOG_H

#include "zeptypes.h"
#include "zeplatch.h"

// Severity of a record and threshold of a facility.
#define ZEP_LOG_SEVERE 1u
#define ZEP_LOG_ERROR 2u
#define ZEP_LOG_WARNING 3u
#define ZEP_LOG_INFO 4u
#define ZEP_LOG_EVENT 5u

// Data item types. An item is three arguments: pointer to the data, Uint32 length in bytes,
// Sint32 type. Zero and positive types give a hexadecimal dump as well.
#define ZEP_LOGDATA_HEX (-1)
#define ZEP_LOGDATA_SINT (-2)
#define ZEP_LOGDATA_UINT (-3)
#define ZEP_LOGDATA_CHAR (-4)
#define ZEP_LOGDATA_STRING (-5)
#define ZEP_LOGDATA_BOOL (-6)

// The argument mask of zepLogRC and zepLogSysRC: 0 for no items, otherwise bit 31 and bit n-1
// for each argument n of the operation that follows as an item, in argument order.
#define ZEP_LOG_ARGS(bits) ((Sint32)(0x80000000u | (Uint32)(bits)))

// Targets of a facility.
#define ZEP_LOG_TARGET_FILE 1u
#define ZEP_LOG_TARGET_EVENTLOG 2u  // the system log on this platform, syslog(3)
#define ZEP_LOG_TARGET_STDERR 4u

#define ZEP_LOG_PATH_SIZE 261
#define ZEP_LOG_NAME_SIZE 51

// The input of zepLogFacOpen.
struct ZEP_EXPORT ZEPLogFacilityParam {
    Uint32 version;
    Char path[ZEP_LOG_PATH_SIZE];  // the log file; must not be empty for the file target
    Char name[ZEP_LOG_NAME_SIZE];  // the facility's name, the system log's identity; not empty
    Uint32 level;                  // 0 to 5: records of this level and more severe pass
    Uint32 target;                 // ZEP_LOG_TARGET_*
    Uint32 permissions;            // handed to the log file's open parameters
#ifdef __cplusplus
    ZEPLogFacilityParam();
#endif
};

// A facility. The library keeps one, the default facility (a null pointer selects it); any
// other lives in the caller's memory, zeroed or opened before use. Its lock is a plain latch, so
// a facility works in shared memory too.
struct ZEPLogFacility {
    Char path[ZEP_LOG_PATH_SIZE];
    Char name[ZEP_LOG_NAME_SIZE];
    ZEPLock lock;
    Uint32 level;
    Uint32 target;
    Uint32 permissions;
    Bool open;
};

ZEP_BEGIN_C

// Opens (or re-opens, replacing its settings) a facility; null selects the default facility.
ZEP_EXPORT Uint32 zepLogFacOpen(const ZEPLogFacilityParam* param, ZEPLogFacility* facility);
// Closes a facility; always 0, open or not. It touches no file.
ZEP_EXPORT Uint32 zepLogFacClose(ZEPLogFacility* facility);
// Stores a new level (unchecked) in an open facility.
ZEP_EXPORT Uint32 zepLogFacSetLevel(ZEPLogFacility* facility, Uint32 level);

// A record with `count` items, shown as DATA #1, DATA #2, ...
ZEP_EXPORT Uint32 zepLog(ZEPLogFacility* facility, Uint32 functionId, Uint32 code, Uint32 probe,
                         Uint32 level, Sint32 count, ...);

// A record for a failed nested library call: its identifier and the code it returned.
ZEP_EXPORT Uint32 zepLogRC(ZEPLogFacility* facility, Uint32 functionId, Uint32 calledId,
                           Uint32 calledRc, Uint32 code, Uint32 probe, Uint32 level, Sint32 mask,
                           ...);

// A record for a failed platform call: its identifier and the platform error number.
ZEP_EXPORT Uint32 zepLogSysRC(ZEPLogFacility* facility, Uint32 functionId, Uint32 calledId,
                              Uint32 osError, Uint32 code, Uint32 probe, Uint32 level, Sint32 mask,
                              ...);

ZEP_END_C

#endif
