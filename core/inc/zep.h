// zep.h - everything zep exports.
#ifndef ZEP_H
#define ZEP_H

#include "zeptypes.h"
#include "zepecf.h"
#include "zeperror.h"
#include "zeplib.h"
#include "zeplog.h"
#include "gtrace.h"
#include "zepmemdbg.h"
#include "zepfile.h"
#include "zepdirlist.h"
#include "zephfile.h"
#include "zepipc.h"
#include "zepipcmemory.h"
#include "zephexdump.h"
#include "zepsysinfo.h"

// primitives: begin
#include "zepatomic.h"
#include "zeplatch.h"
#include "zeptime.h"
#include "zepnumconv.h"
// primitives: end

// numerics: begin
#include "zepint128.h"
#include "zepdecfloat.h"
// numerics: end

#include "rambo.h"

// processes: begin
#include "zepthread.h"
#include "zeplibrary.h"
#include "zepprocess.h"
// processes: end

// memory: begin
#include "zepprimfile.h"
#include "zepassert.h"
#include "zepmemory.h"
// memory: end

// trace: begin
#include "gtmask.h"
#include "zeptsd.h"
// trace: end

// ipc-sync: begin
#include "zepipcsemaphore.h"
#include "zepipcqueue.h"
#include "zepipcwaitpost.h"
// ipc-sync: end

// crash: begin
#include "zepstack.h"
#include "zeptrap.h"
// crash: end

#endif
