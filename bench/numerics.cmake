# Numerics: ZEPDecfloat's text conversions beside the Intel decimal floating-point library
# (Debian's libintelrdfpmath-dev, a header and static libraries; the variant 000 passes
# arguments by value and takes the rounding mode and the flags as arguments), and Uint128
# beside the compiler's unsigned __int128. One program; it prints the ratios last.
find_path(ZEP_BID_INCLUDE_DIR bid_functions.h REQUIRED)
find_library(ZEP_BID_LIBRARY NAMES libbidgcc000.a bidgcc000 REQUIRED)
add_executable(bench_numerics
  ${CMAKE_CURRENT_LIST_DIR}/bench_decfloat.cpp
  ${CMAKE_CURRENT_LIST_DIR}/bench_uint128.cpp)
target_include_directories(bench_numerics PRIVATE ${ZEP_BID_INCLUDE_DIR})
target_link_libraries(bench_numerics PRIVATE zep benchmark::benchmark ${ZEP_BID_LIBRARY})
