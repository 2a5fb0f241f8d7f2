# The allocator's heap path in each debug mode against malloc/free, and its areas against
# Boost.Interprocess's managed shared memory (libboost-dev; the comparison is left out without it).
find_package(Boost 1.70 QUIET)
add_executable(bench_memory ${CMAKE_CURRENT_LIST_DIR}/bench_memory.cpp)
target_link_libraries(bench_memory PRIVATE zep benchmark::benchmark Threads::Threads)
if(Boost_FOUND)
  target_link_libraries(bench_memory PRIVATE Boost::headers rt)
  target_compile_definitions(bench_memory PRIVATE ZEP_BENCH_HAVE_BOOST_INTERPROCESS)
else()
  message(STATUS "bench_memory: Boost.Interprocess not found, the area runs without its peer")
endif()
