# Shared memory against the bare shm_open calls and Boost.Interprocess's managed shared memory
# (libboost-dev; left out without it).
find_package(Boost 1.70 QUIET)
add_executable(bench_ipcmemory ${CMAKE_CURRENT_LIST_DIR}/bench_ipcmemory.cpp)
target_link_libraries(bench_ipcmemory PRIVATE zep benchmark::benchmark Threads::Threads rt)
if(Boost_FOUND)
  target_link_libraries(bench_ipcmemory PRIVATE Boost::headers)
  target_compile_definitions(bench_ipcmemory PRIVATE ZEP_BENCH_HAVE_BOOST_INTERPROCESS)
endif()
