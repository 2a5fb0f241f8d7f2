# zeptrace on a large dump: export throughput and peak memory, show beside the formatter alone.
add_executable(bench_zeptrace ${CMAKE_CURRENT_LIST_DIR}/bench_zeptrace.cpp)
target_link_libraries(bench_zeptrace PRIVATE zep zep_trace_format Threads::Threads)
target_compile_definitions(bench_zeptrace PRIVATE ZEPTRACE_BIN="$<TARGET_FILE:zeptrace>")
add_dependencies(bench_zeptrace zeptrace)
