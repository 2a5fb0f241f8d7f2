// zepecf.h - the error and identity catalogue.
//
// An ECF code is a Uint32: bit 31 error (clear: warning), bits 28-30 the set (1, "setecf"),
// bits 0-22 the index in the set. 0 is success ("OK").
//
// A function identifier is a Uint32: bits 27-31 product, 19-26 component, 16-18 class,
// 0-15 function index. The class is carried for the trace filters; no look-up reads it.
//
// All names returned are static read-only strings. Nothing here locks, allocates or logs;
// a look-up that finds nothing returns null or 0.
#ifndef ZEPECF_H
#define ZEPECF_H

#include "zeptypes.h"
#include "zepecfcodes.h"
#include "zepfuncids.h"

#define ECF_IS_ERROR(code) (((Uint32)(code)&0x80000000u) != 0)
#define ECF_SET_OF(code) (((Uint32)(code) >> 28) & 0x7u)
#define ECF_INDEX_OF(code) ((Uint32)(code)&0x7FFFFFu)

#define ZEP_FUNC_PRODUCT(id) (((Uint32)(id) >> 27) & 0x1Fu)
#define ZEP_FUNC_COMPONENT(id) (((Uint32)(id) >> 19) & 0xFFu)
#define ZEP_FUNC_CLASS(id) (((Uint32)(id) >> 16) & 0x7u)
#define ZEP_FUNC_INDEX(id) ((Uint32)(id)&0xFFFFu)
#define ZEP_FUNC_ID(product, component, cls, index)                                   \
    ((((Uint32)(product)&0x1Fu) << 27) | (((Uint32)(component)&0xFFu) << 19) |          \
     (((Uint32)(cls)&0x7u) << 16) | ((Uint32)(index)&0xFFFFu))

ZEP_BEGIN_C

// --- codes
ZEP_EXPORT Uint32 ecfErrorGetNumCodes(Uint32 set);
ZEP_EXPORT String ecfErrorGetSetName(Uint32 code);
ZEP_EXPORT String ecfErrorGetProductName(Uint32 code);
ZEP_EXPORT String ecfErrorGetComponentName(Uint32 code);
ZEP_EXPORT String ecfErrorGetCodeName(Uint32 code);
ZEP_EXPORT String ecfErrorGetDescription(Uint32 code);

// --- function identifiers and indices
ZEP_EXPORT String ecfGetProductName(Uint32 functionId);
ZEP_EXPORT String ecfGetComponentName(Uint32 functionId);
ZEP_EXPORT String ecfGetComponentShortName(Uint32 functionId);
ZEP_EXPORT String ecfGetFunctionName(Uint32 functionId);
ZEP_EXPORT Uint32 ecfGetNumProducts(void);
ZEP_EXPORT Uint32 ecfGetNumComponents(Uint32 product);
ZEP_EXPORT Uint32 ecfGetNumFunctions(Uint32 product, Uint32 component);
ZEP_EXPORT Uint32 ecfFindProductIndex(String name);
ZEP_EXPORT Uint32 ecfFindComponentIndex(Uint32 product, String shortName);
ZEP_EXPORT Uint32 ecfFindFunctionIndex(Uint32 product, Uint32 component, String name);

ZEP_END_C

#endif
