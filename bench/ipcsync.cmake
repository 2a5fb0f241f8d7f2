# The queue, the semaphore and their peers between two processes: POSIX message queues, a pipe,
# Boost.Interprocess's message_queue (libboost-dev; left out without it) and a process-shared
# sem_t. A plain program: each case forks its other process and times the whole exchange.
find_package(Boost 1.70 QUIET)
add_executable(bench_ipcsync ${CMAKE_CURRENT_LIST_DIR}/bench_ipcsync.cpp)
target_link_libraries(bench_ipcsync PRIVATE zep Threads::Threads rt)
if(Boost_FOUND)
  target_link_libraries(bench_ipcsync PRIVATE Boost::headers)
  target_compile_definitions(bench_ipcsync PRIVATE ZEP_BENCH_HAVE_BOOST_INTERPROCESS)
else()
  message(STATUS "bench_ipcsync: Boost.Interprocess not found, the queue runs without that peer")
endif()
