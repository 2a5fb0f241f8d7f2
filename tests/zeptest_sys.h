// What the suites of files, directories, processes, threads, libraries and system information
// share: files read and written whole, commands run for their output, and the log records of a
// call in one comparable form.
#ifndef ZEPTEST_SYS_H
#define ZEPTEST_SYS_H

#include <dirent.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>

#include "zeptest_capture.h"

namespace zeptest {

using Strings = std::vector<std::string>;

inline std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream ss;
    ss << in.rdbuf();
    return in ? ss.str() : "<missing>";
}
inline void put(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
}
inline bool exists(const std::string& p) {
    struct stat st;
    return lstat(p.c_str(), &st) == 0;
}
// A command's standard output without its last newlines.
inline std::string run(const std::string& cmd) {
    std::string out;
    if (FILE* p = popen(cmd.c_str(), "r")) {
        char buf[512];
        while (fgets(buf, sizeof buf, p)) out += buf;
        pclose(p);
    }
    while (!out.empty() && out.back() == '\n') out.pop_back();
    return out;
}
inline Uint64 number(const std::string& s) {
    return strtoull(s.c_str(), nullptr, 10);
}
// A directory's names but "." and "..", in the directory's own order.
inline Strings entries(const std::string& dir) {
    Strings names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) names.push_back(e->d_name);
    if (d) closedir(d);
    return names;
}

// A log record as "kind fid/probe code level", with "called/err" for records of a failed call.
inline std::string rec(const std::string& what, Uint32 fid, Uint32 probe, Uint32 code,
                       Uint32 level = ZEP_LOG_INFO, Uint32 called = 0, Uint32 err = 0) {
    char b[96];
    snprintf(b, sizeof b, "%s %x/%u %x L%u", what.c_str(), fid, probe, code, level);
    return what == "log" ? b : b + (" " + std::to_string(called) + "/" + std::to_string(err));
}
// The log records of the captured calls, in that form.
inline Strings logs() {
    Strings out;
    for (const Call& c : calls)
        if (c.what.compare(0, 3, "log") == 0)
            out.push_back(rec(c.what, c.fid, c.probe, c.code, c.level, c.called, c.err));
    return out;
}
// The first or the last log record of the captured calls.
inline const Call& aLog(bool last = true) {
    static const Call none;
    auto isLog = [](const Call& c) { return c.what.compare(0, 3, "log") == 0; };
    if (last) {
        auto it = std::find_if(calls.rbegin(), calls.rend(), isLog);
        return it == calls.rend() ? none : *it;
    }
    auto it = std::find_if(calls.begin(), calls.end(), isLog);
    return it == calls.end() ? none : *it;
}
// The error records of the trace, as "fid/probe".
inline Strings errorRecords() {
    Strings out;
    for (const Call& c : calls)
        if (c.what == "error") out.push_back(std::to_string(c.fid) + "/" + std::to_string(c.probe));
    return out;
}
inline std::string at(Uint32 fid, Uint32 probe) {
    return std::to_string(fid) + "/" + std::to_string(probe);
}

}  // namespace zeptest

#endif
