# Crash capture: signal to a complete trap file in a process with 50 loaded libraries, beside a
# minimal handler of glibc's backtrace; zeptrap's cold symbolisation of a 30-frame stack beside
# addr2line on the same addresses.
set(ZEP_BENCH_CRASH_LIB_SOURCE ${CMAKE_CURRENT_BINARY_DIR}/crashlib.c)
file(WRITE ${ZEP_BENCH_CRASH_LIB_SOURCE}
     "int crashlib_function(int x) { return x * 3 + CRASHLIB_INDEX; }\n")
set(ZEP_BENCH_CRASH_LIB_DIR ${CMAKE_CURRENT_BINARY_DIR}/crashlibs)
set(ZEP_BENCH_CRASH_LIBS)
foreach(i RANGE 1 50)
  add_library(crashlib${i} SHARED ${ZEP_BENCH_CRASH_LIB_SOURCE})
  target_compile_definitions(crashlib${i} PRIVATE CRASHLIB_INDEX=${i})
  set_target_properties(crashlib${i} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${ZEP_BENCH_CRASH_LIB_DIR})
  list(APPEND ZEP_BENCH_CRASH_LIBS crashlib${i})
endforeach()
add_executable(bench_crash ${CMAKE_CURRENT_LIST_DIR}/bench_crash.cpp)
target_link_libraries(bench_crash PRIVATE zep benchmark::benchmark Threads::Threads ${CMAKE_DL_LIBS})
target_compile_definitions(bench_crash PRIVATE
  ZEP_BENCH_CRASH_LIB_DIR="${ZEP_BENCH_CRASH_LIB_DIR}"
  ZEP_BENCH_ZEPTRAP="${CMAKE_BINARY_DIR}/bin/zeptrap")
add_dependencies(bench_crash ${ZEP_BENCH_CRASH_LIBS})
if(TARGET zeptrap)
  add_dependencies(bench_crash zeptrap)
endif()
