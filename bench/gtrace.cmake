# The trace's cost per trace point beside a naive fetch-add ring and, where its development files
# are installed, an LTTng-UST event; the frame with the trace off beside the bare system call; and
# the formatter's throughput.
add_executable(bench_gtrace ${CMAKE_CURRENT_LIST_DIR}/bench_gtrace.cpp)
target_link_libraries(bench_gtrace PRIVATE zep zep_trace_format benchmark::benchmark
                      Threads::Threads)
target_compile_definitions(bench_gtrace PRIVATE _GNU_SOURCE)

find_package(PkgConfig QUIET)
if(PKG_CONFIG_FOUND)
  pkg_check_modules(LTTNG_UST QUIET IMPORTED_TARGET lttng-ust)
endif()
if(LTTNG_UST_FOUND)
  # The tracepoint provider: two events shaped like _gtraceEntry and _gtraceVar with two
  # 8-byte items. LTTng's provider header includes itself, so it is a file of its own.
  set(ZEP_BENCH_TP_DIR ${CMAKE_CURRENT_BINARY_DIR}/lttng)
  file(WRITE ${ZEP_BENCH_TP_DIR}/zepbench_tp.h [=[
#undef TRACEPOINT_PROVIDER
#define TRACEPOINT_PROVIDER zepbench
#undef TRACEPOINT_INCLUDE
#define TRACEPOINT_INCLUDE "zepbench_tp.h"
#if !defined(ZEPBENCH_TP_H) || defined(TRACEPOINT_HEADER_MULTI_READ)
#define ZEPBENCH_TP_H
#include <stdint.h>
#include <lttng/tracepoint.h>
TRACEPOINT_EVENT(zepbench, entry,
    TP_ARGS(uint64_t, thread, uint32_t, function),
    TP_FIELDS(ctf_integer(uint64_t, thread, thread) ctf_integer(uint32_t, function, function)))
TRACEPOINT_EVENT(zepbench, var,
    TP_ARGS(uint64_t, thread, uint32_t, function, const char*, a, const char*, b),
    TP_FIELDS(ctf_integer(uint64_t, thread, thread) ctf_integer(uint32_t, function, function)
              ctf_array(char, a, a, 8) ctf_array(char, b, b, 8)))
#endif
#include <lttng/tracepoint-event.h>
]=])
  target_include_directories(bench_gtrace PRIVATE ${ZEP_BENCH_TP_DIR})
  target_compile_definitions(bench_gtrace PRIVATE ZEP_BENCH_LTTNG=1)
  target_link_libraries(bench_gtrace PRIVATE PkgConfig::LTTNG_UST ${CMAKE_DL_LIBS})
endif()
