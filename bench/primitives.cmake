# Latches, ticks and time, and the conversions, each beside what a user would pick instead
# (pthread mutexes, clock_gettime, strtoll, snprintf). One program; it prints the ratios last.
add_executable(bench_primitives
  ${CMAKE_CURRENT_LIST_DIR}/bench_latch.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bench_time.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bench_numconv.cpp)
target_link_libraries(bench_primitives PRIVATE zep zep_private_includes benchmark::benchmark
                      Threads::Threads)
target_compile_definitions(bench_primitives PRIVATE _GNU_SOURCE)
