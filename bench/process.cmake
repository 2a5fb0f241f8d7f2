# Threads against std::thread, child processes against posix_spawn and waitpid.
add_executable(bench_process ${CMAKE_CURRENT_LIST_DIR}/bench_process.cpp)
target_link_libraries(bench_process PRIVATE zep benchmark::benchmark Threads::Threads)
