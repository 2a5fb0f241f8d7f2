# The machine queries against the system calls a user would otherwise make.
add_executable(bench_sysinfo ${CMAKE_CURRENT_LIST_DIR}/bench_sysinfo.cpp)
target_link_libraries(bench_sysinfo PRIVATE zep benchmark::benchmark)
