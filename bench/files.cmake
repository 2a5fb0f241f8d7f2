# Whole-tree copy and delete against cp -r and rm -rf, and the directory listing against
# opendir/readdir/stat. One run of each, ratios printed (a plain program: the tree cases take
# seconds each and are run once).
add_executable(bench_files ${CMAKE_CURRENT_LIST_DIR}/bench_files.cpp)
target_link_libraries(bench_files PRIVATE zep)
