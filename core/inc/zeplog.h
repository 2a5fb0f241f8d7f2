// zeplog.h - the diagnostic log: facilities and the three writing calls.
//
// The library logs only to the default facility (a null facility pointer), which stays closed
// until the product opens it: a process that opens no facility logs nothing, and a writing call
// on a closed facility returns ECF_INVALID_PARAMETER without a record.
#ifndef ZEPLOG_H
#define ZEPLOG_H

#include "zeptypes.h"

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

struct ZEPLogFacility;

ZEP_BEGIN_C

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
