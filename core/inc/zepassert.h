// zepassert.h - assertion reports and the pointer tests.
//
// A report goes out by the simplest means there are: no frame, no log facility, no lock, no
// allocation, only the primitive file. It can therefore be made while any lock is held, from the
// allocator among others (the memory debugger sends all its findings this way).
//
// zepAssertFailureAction, in order:
//  1. A callback set by zepSetAssertionCallback takes the place of everything below, the fatal
//     action included: it is called and the report returns.
//  2. The head, at most 255 bytes:
//       "[NON-FATAL ]ASSERTION FAILED!!!\r\nTime       = <asctime>Expr       = ...\r\n
//        PID        = ...\r\nTID        = ...\r\nFile       = ...\r\nLine       = ...\r\n"
//  3. The place. With a path: the thread's file "<path>/p<pid>t<tid>.mem" alone, never the
//     console. Without one: the console when standard output is a terminal (the head, then each
//     pair as "dump data <n>:\n" and its hex dump), and then the file that ZEP_DEBUG_LOG_FILE
//     names, or else the default log facility's file if that facility ever got a path, open or
//     not. With none of these the report goes nowhere.
//  4. The file is opened or created, and the head and the dumps are appended at its end; the
//     first failure ends the writing. Threads that share a file interleave by reports.
//  5. Fatal: the head goes to the debugger's output (the standard error stream here), then the
//     process breaks into the debugger if one is attached (SIGTRAP: it can go on from there);
//     otherwise abort() stops it with SIGABRT, which leaves a core dump where the system keeps
//     them and reaches any handler of the process first. A non-fatal report returns.
//
// The variable part of zepAssertFailureAction is a list of pairs, (const void* data,
// Uint32 length), ended by a null pointer or a length of 0; the end marker must be given even
// when there are no pairs. Pass lengths as Uint32 (cast a sizeof). The first 32 pairs are used.
#ifndef ZEPASSERT_H
#define ZEPASSERT_H

#include "zeptypes.h"

#define ZEP_ASSERT_MAX_PAIRS 32u

// One pair of the variable part, as a callback sees it: an array ended by a null data pointer.
struct ZEPAssertPair {
    const void* data;
    Uint32 length;
};

// The callback gets the expression, the file, the line, the path (or null), the fatal flag and
// the pairs. It replaces the whole report.
typedef void (*ZEPAssertionCallback)(String expression, String file, Uint32 line, String path,
                                     Bool fatal, const ZEPAssertPair* pairs);

ZEP_BEGIN_C

// A non-fatal report without path and pairs.
ZEP_EXPORT void zepAssertFailed(String expression, String file, Uint32 line);

ZEP_EXPORT void zepAssertFailureAction(String expression, String file, Uint32 line, String path,
                                       Bool fatal, ...);

// Sets the process-wide callback, or removes it with null. It is read without a lock.
ZEP_EXPORT void zepSetAssertionCallback(ZEPAssertionCallback callback);

// Non-zero if the pointer is below 4,096, the size is 0, or a byte of the range can't be read
// (written, if `write` is true). The range is tested without touching it, by the kernel and the
// process's mappings: unmapped and protected pages, guard gaps and pages beyond the end of a
// mapped file are bad; memory that is mapped but not the caller's (a freed heap block) is not
// told apart, and neither is a mapping that changes right after the test.
ZEP_EXPORT Uint32 _zepIsBadReadPtr(const void* pointer, Uint32 size);
ZEP_EXPORT Uint32 _zepIsBadWritePtr(void* pointer, Uint32 size, Bool write);
// Non-zero if the text is null, the maximum is 0, or the bytes up to the terminator (or up to
// the maximum without one) can't be read.
ZEP_EXPORT Uint32 _zepIsBadString(String text, Uint32 maximum);

ZEP_END_C

#define zepAssert(e) ((e) ? (void)0 : zepAssertFailed(#e, __FILE__, __LINE__))
#define zepIsBadReadPtr(p, n) _zepIsBadReadPtr((p), (n))
#define zepIsBadWritePtr(p, n, w) _zepIsBadWritePtr((p), (n), (w))
#define zepIsBadString(s, n) _zepIsBadString((s), (n))

#endif
