# The log's file target against the bare system calls it stands for, and against spdlog's
# basic file sink, which is what a user would otherwise pick.
find_package(spdlog REQUIRED)
add_executable(bench_log ${CMAKE_CURRENT_LIST_DIR}/bench_log.cpp)
target_link_libraries(bench_log PRIVATE zep benchmark::benchmark spdlog::spdlog)
