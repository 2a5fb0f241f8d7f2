# The ring's writers beside a naive fetch-add ring of 64-byte slots and, where its development
# files are installed, an LTTng-UST event of the same bytes; the dump reader's throughput.
add_executable(bench_rambo ${CMAKE_CURRENT_LIST_DIR}/bench_rambo.cpp)
target_link_libraries(bench_rambo PRIVATE zep zep_rambo_consumer benchmark::benchmark
                      Threads::Threads)
target_compile_definitions(bench_rambo PRIVATE _GNU_SOURCE)

if(NOT TARGET PkgConfig::LTTNG_UST)
  find_package(PkgConfig QUIET)
  if(PKG_CONFIG_FOUND)
    pkg_check_modules(LTTNG_UST QUIET IMPORTED_TARGET lttng-ust)
  endif()
endif()
if(TARGET PkgConfig::LTTNG_UST)
  # The tracepoint provider: records of 52 and 116 bytes. LTTng's provider header includes
  # itself, so it is a file of its own.
  set(ZEP_BENCH_RAMBO_TP_DIR ${CMAKE_CURRENT_BINARY_DIR}/lttng-rambo)
  file(WRITE ${ZEP_BENCH_RAMBO_TP_DIR}/zeprambo_tp.h [=[
#undef TRACEPOINT_PROVIDER
#define TRACEPOINT_PROVIDER zeprambo
#undef TRACEPOINT_INCLUDE
#define TRACEPOINT_INCLUDE "zeprambo_tp.h"
#if !defined(ZEPRAMBO_TP_H) || defined(TRACEPOINT_HEADER_MULTI_READ)
#define ZEPRAMBO_TP_H
#include <stdint.h>
#include <lttng/tracepoint.h>
TRACEPOINT_EVENT(zeprambo, rec52, TP_ARGS(const uint8_t*, data),
    TP_FIELDS(ctf_array(uint8_t, data, data, 52)))
TRACEPOINT_EVENT(zeprambo, rec116, TP_ARGS(const uint8_t*, data),
    TP_FIELDS(ctf_array(uint8_t, data, data, 116)))
#endif
#include <lttng/tracepoint-event.h>
]=])
  target_include_directories(bench_rambo PRIVATE ${ZEP_BENCH_RAMBO_TP_DIR})
  target_compile_definitions(bench_rambo PRIVATE ZEP_BENCH_LTTNG=1)
  target_link_libraries(bench_rambo PRIVATE PkgConfig::LTTNG_UST ${CMAKE_DL_LIBS})
endif()
