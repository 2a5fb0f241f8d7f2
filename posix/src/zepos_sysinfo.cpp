// zepos_sysinfo.cpp - the machine's facts from /proc, /sys, sysconf, uname and the control group.
#include "zepos.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <limits.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysinfo.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <mutex>
#include <new>
#include <string>
#include <string_view>

namespace zepos {

// ---- files below the root

namespace {

std::mutex g_rootLock;  // the root and the control group's cached directories
std::string g_root;

std::string rootOf() {
    std::lock_guard<std::mutex> hold(g_rootLock);
    return g_root;
}

}  // namespace

void SetSystemFilesRoot(const char* root) {
    std::lock_guard<std::mutex> hold(g_rootLock);
    g_root = root ? root : "";
    sysfiles::ForgetControlGroup();
}

namespace sysfiles {

std::string Path(std::string_view path) {
    std::string p = rootOf();
    p.append(path);
    return p;
}

long ReadWhole(const std::string& path, char* buffer, size_t size) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return -1;
    size_t have = 0;
    while (have + 1 < size) {
        const ssize_t n = read(fd, buffer + have, size - 1 - have);
        if (n < 0) {
            if (errno == EINTR) continue;
            const int saved = errno;
            close(fd);
            errno = saved;
            return -1;
        }
        if (n == 0) break;
        have += static_cast<size_t>(n);
    }
    close(fd);
    buffer[have] = 0;
    return static_cast<long>(have);
}

bool ReadText(const std::string& path, std::string* text) {
    char buffer[8192];
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return false;
    text->clear();
    for (;;) {
        const ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
            const int saved = errno;
            close(fd);
            errno = saved;
            return n == 0;
        }
        text->append(buffer, static_cast<size_t>(n));
    }
}

bool ParseU64(std::string_view s, Uint64* value) {
    size_t i = 0;
    while (i < s.size() && (s[i] == ' ' || s[i] == '\t')) ++i;
    if (i == s.size() || s[i] < '0' || s[i] > '9') return false;
    Uint64 v = 0;
    for (; i < s.size() && s[i] >= '0' && s[i] <= '9'; ++i) {
        const Uint64 digit = static_cast<Uint64>(s[i] - '0');
        if (v > (UINT64_MAX - digit) / 10) return false;
        v = v * 10 + digit;
    }
    *value = v;
    return true;
}

Uint64 ParseLimit(std::string_view s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.remove_suffix(1);
    while (!s.empty() && s.front() == ' ') s.remove_prefix(1);
    if (s.empty() || s == "max" || s[0] == '-') return NO_LIMIT;
    Uint64 v;
    if (!ParseU64(s, &v)) return NO_LIMIT;
    // The kernel writes a page counter's maximum (2^63 less a page, whatever the page size) for
    // a group that has no limit; nothing real comes near 2^62 bytes.
    if (v >= (static_cast<Uint64>(1) << 62)) return NO_LIMIT;
    return v;
}

Uint32 CountCpuList(std::string_view s) {
    Uint32 count = 0;
    size_t i = 0;
    while (i < s.size()) {
        Uint64 first, last;
        size_t j = i;
        while (j < s.size() && s[j] >= '0' && s[j] <= '9') ++j;
        if (j == i || !ParseU64(s.substr(i, j - i), &first)) break;
        last = first;
        if (j < s.size() && s[j] == '-') {
            size_t k = ++j;
            while (k < s.size() && s[k] >= '0' && s[k] <= '9') ++k;
            if (k == j || !ParseU64(s.substr(j, k - j), &last) || last < first) break;
            j = k;
        }
        count += static_cast<Uint32>(last - first + 1);
        if (j < s.size() && s[j] == ',') ++j;
        i = j;
        if (i < s.size() && (s[i] == '\n' || s[i] == ' ')) break;
    }
    return count;
}

// ---- /proc/self/mountinfo

std::string Unescape(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] == '\\' && i + 3 < s.size() + 0 && s[i + 1] >= '0' && s[i + 1] <= '3') {
            out.push_back(static_cast<char>(((s[i + 1] - '0') << 6) | ((s[i + 2] - '0') << 3) |
                                            (s[i + 3] - '0')));
            i += 3;
        } else {
            out.push_back(s[i]);
        }
    }
    return out;
}

bool ParseMountLine(std::string_view line, MountEntry* m) {
    // id parent major:minor root mount-point options [optional fields] - type source super-options
    std::string_view field[6];
    size_t pos = 0;
    for (int k = 0; k < 6; ++k) {
        const size_t end = line.find(' ', pos);
        if (end == std::string_view::npos) return false;
        field[k] = line.substr(pos, end - pos);
        pos = end + 1;
    }
    const size_t dash = line.find(" - ", pos - 1);
    if (dash == std::string_view::npos) return false;
    std::string_view rest = line.substr(dash + 3);
    const size_t t = rest.find(' ');
    if (t == std::string_view::npos) return false;
    const size_t s = rest.find(' ', t + 1);
    m->type = std::string(rest.substr(0, t));
    m->source = Unescape(rest.substr(t + 1, s == std::string_view::npos ? s : s - t - 1));
    m->superOptions = s == std::string_view::npos ? std::string() : std::string(rest.substr(s + 1));
    const size_t colon = field[2].find(':');
    Uint64 major = 0, minor = 0;
    if (colon == std::string_view::npos || !ParseU64(field[2].substr(0, colon), &major) ||
        !ParseU64(field[2].substr(colon + 1), &minor))
        return false;
    m->major = static_cast<Uint32>(major);
    m->minor = static_cast<Uint32>(minor);
    m->root = Unescape(field[3]);
    m->mountPoint = Unescape(field[4]);
    return true;
}

bool HasOption(std::string_view options, std::string_view option) {
    size_t pos = 0;
    while (pos <= options.size()) {
        size_t end = options.find(',', pos);
        if (end == std::string_view::npos) end = options.size();
        if (options.substr(pos, end - pos) == option) return true;
        pos = end + 1;
    }
    return false;
}

bool NextLine(std::string_view text, size_t* pos, std::string_view* line) {
    if (*pos >= text.size()) return false;
    size_t end = text.find('\n', *pos);
    if (end == std::string_view::npos) end = text.size();
    *line = text.substr(*pos, end - *pos);
    *pos = end + 1;
    return true;
}

// ---- the control group

namespace {

struct GroupDir {
    int version = 0;       // 0: the controller isn't found
    std::string dir, top;  // the group's directory and its hierarchy's mount point, rooted
};

struct GroupCache {
    bool valid = false;
    std::string cgroupFile;  // /proc/self/cgroup as it was when the directories were found
    GroupDir memory, cpu;
};
GroupCache g_cache;  // under g_rootLock

// The group's directory for `controller`: its v1 hierarchy if it has one, else the v2 one.
GroupDir findGroup(const std::string& cgroupFile, const std::string& mountinfo,
                   const std::string& root, std::string_view controller) {
    GroupDir g;
    std::string path;
    int version = 0;
    size_t pos = 0;
    for (std::string_view line; NextLine(cgroupFile, &pos, &line);) {
        const size_t c1 = line.find(':');
        const size_t c2 = c1 == std::string_view::npos ? c1 : line.find(':', c1 + 1);
        if (c2 == std::string_view::npos) continue;
        std::string_view controllers = line.substr(c1 + 1, c2 - c1 - 1);
        std::string_view p = line.substr(c2 + 1);
        if (controllers.empty() && line.substr(0, c1) == "0") {
            if (version == 0) version = 2, path = std::string(p);
        } else if (HasOption(controllers, controller)) {
            version = 1, path = std::string(p);
        }
    }
    if (version == 0) return g;
    pos = 0;
    for (std::string_view line; NextLine(mountinfo, &pos, &line);) {
        MountEntry m;
        if (!ParseMountLine(line, &m)) continue;
        if (version == 1 ? (m.type != "cgroup" || !HasOption(m.superOptions, controller))
                         : m.type != "cgroup2")
            continue;
        // /proc/self/cgroup names the group from the hierarchy's root; the mount may show a
        // part of it only (a container's view), whose root the mount table names.
        std::string rel = path;
        if (m.root != "/") {
            if (rel.compare(0, m.root.size(), m.root) == 0 &&
                (rel.size() == m.root.size() || rel[m.root.size()] == '/'))
                rel.erase(0, m.root.size());
            else
                rel.clear();  // outside this mount's view: its top is all we can see
        }
        while (!rel.empty() && rel.back() == '/') rel.pop_back();
        g.version = version;
        g.top = root + m.mountPoint;
        while (g.top.size() > 1 && g.top.back() == '/') g.top.pop_back();
        g.dir = g.top + rel;
        return g;
    }
    return g;
}

bool readLimitFile(const std::string& dir, const char* name, Uint64* value) {
    char buffer[128];
    if (ReadWhole(dir + "/" + name, buffer, sizeof buffer) < 0) return false;
    *value = ParseLimit(buffer);
    return true;
}

bool readNumberFile(const std::string& dir, const char* name, Uint64* value) {
    char buffer[128];
    if (ReadWhole(dir + "/" + name, buffer, sizeof buffer) < 0) return false;
    return ParseU64(buffer, value);
}

// Calls visit(dir) for the group's directory and each one above it up to the hierarchy's top.
template <class Visit>
void walkUp(const GroupDir& g, Visit visit) {
    if (g.version == 0) return;
    std::string dir = g.dir;
    for (int depth = 0; depth < 64; ++depth) {
        visit(dir);
        if (dir.size() <= g.top.size()) break;
        const size_t slash = dir.rfind('/');
        if (slash == std::string::npos || slash < g.top.size()) break;
        dir.erase(slash);
    }
}

void lower(Uint64* v, Uint64 candidate) {
    if (candidate < *v) *v = candidate;
}

}  // namespace

void ForgetControlGroup() {
    g_cache.valid = false;
}

void ReadControlGroupLimits(CONTROL_GROUP_LIMITS* limits) {
    limits->memoryLimit = limits->memoryHeadroom = NO_LIMIT;
    limits->swapLimit = limits->swapHeadroom = NO_LIMIT;
    limits->cpuProcessors = 0;
    limits->version = 0;

    GroupDir memory, cpu;
    {
        // The directories are worked out again only when the process has moved to another
        // group: reading the mount table costs more than all the limits together.
        std::lock_guard<std::mutex> hold(g_rootLock);
        std::string cgroupFile;
        if (!ReadText(g_root + "/proc/self/cgroup", &cgroupFile)) return;
        if (!g_cache.valid || g_cache.cgroupFile != cgroupFile) {
            std::string mountinfo;
            if (!ReadText(g_root + "/proc/self/mountinfo", &mountinfo)) return;
            g_cache.memory = findGroup(cgroupFile, mountinfo, g_root, "memory");
            g_cache.cpu = findGroup(cgroupFile, mountinfo, g_root, "cpu");
            g_cache.cgroupFile = std::move(cgroupFile);
            g_cache.valid = true;
        }
        memory = g_cache.memory;
        cpu = g_cache.cpu;
    }
    limits->version = static_cast<Uint32>(memory.version);

    walkUp(memory, [&](const std::string& dir) {
        Uint64 limit, usage, swapLimit, swapUsage;
        if (memory.version == 2) {
            if (readLimitFile(dir, "memory.max", &limit) && limit != NO_LIMIT) {
                lower(&limits->memoryLimit, limit);
                if (readNumberFile(dir, "memory.current", &usage))
                    lower(&limits->memoryHeadroom, usage < limit ? limit - usage : 0);
            }
            if (readLimitFile(dir, "memory.swap.max", &swapLimit) && swapLimit != NO_LIMIT) {
                lower(&limits->swapLimit, swapLimit);
                if (readNumberFile(dir, "memory.swap.current", &swapUsage))
                    lower(&limits->swapHeadroom, swapUsage < swapLimit ? swapLimit - swapUsage : 0);
            }
            return;
        }
        // v1 limits memory and memory+swap; the swap a group may use is the difference.
        if (!readLimitFile(dir, "memory.limit_in_bytes", &limit)) return;
        const bool haveUsage = readNumberFile(dir, "memory.usage_in_bytes", &usage);
        if (limit != NO_LIMIT) {
            lower(&limits->memoryLimit, limit);
            if (haveUsage) lower(&limits->memoryHeadroom, usage < limit ? limit - usage : 0);
        }
        Uint64 both, bothUsage;
        if (limit != NO_LIMIT && readLimitFile(dir, "memory.memsw.limit_in_bytes", &both) &&
            both != NO_LIMIT) {
            swapLimit = both > limit ? both - limit : 0;
            lower(&limits->swapLimit, swapLimit);
            if (haveUsage && readNumberFile(dir, "memory.memsw.usage_in_bytes", &bothUsage)) {
                swapUsage = bothUsage > usage ? bothUsage - usage : 0;
                lower(&limits->swapHeadroom, swapUsage < swapLimit ? swapLimit - swapUsage : 0);
            }
        }
    });

    Uint64 fewest = NO_LIMIT;
    walkUp(cpu, [&](const std::string& dir) {
        char buffer[128];
        Uint64 quota = 0, period = 0;
        if (cpu.version == 2) {
            if (ReadWhole(dir + "/cpu.max", buffer, sizeof buffer) < 0) return;
            std::string_view text(buffer);
            const size_t space = text.find(' ');
            if (space == std::string_view::npos) return;
            quota = ParseLimit(text.substr(0, space));
            if (quota == NO_LIMIT || !ParseU64(text.substr(space + 1), &period)) return;
        } else {
            if (!readLimitFile(dir, "cpu.cfs_quota_us", &quota) || quota == NO_LIMIT) return;
            if (!readNumberFile(dir, "cpu.cfs_period_us", &period)) return;
        }
        if (period == 0) return;
        // A part of a processor is a processor the caller must plan for.
        Uint64 processors = (quota + period - 1) / period;
        if (processors == 0) processors = 1;
        lower(&fewest, processors);
    });
    if (fewest != NO_LIMIT)
        limits->cpuProcessors = fewest > 0xFFFFFFFFu ? 0xFFFFFFFFu : static_cast<Uint32>(fewest);
}

}  // namespace sysfiles

void GetControlGroupLimits(CONTROL_GROUP_LIMITS* limits) {
    sysfiles::ReadControlGroupLimits(limits);
}

// ---- processors

namespace {

inline HANDLE const CURRENT_PROCESS = reinterpret_cast<HANDLE>(static_cast<intptr_t>(-1));

// The thread's whole affinity as last read: a mask of 64 bits can't carry more processors, so
// putting back the mask that was read puts back the whole set, processors above 64 included.
thread_local cpu_set_t* t_lastSet = nullptr;
thread_local size_t t_lastSetSize = 0;
thread_local uintptr_t t_lastMask = 0;

size_t cpuSetSize() {
    const long n = sysconf(_SC_NPROCESSORS_CONF);
    return CPU_ALLOC_SIZE(n > 1024 ? n : 1024);
}

}  // namespace

HANDLE GetCurrentProcess() {
    return CURRENT_PROCESS;
}

BOOL GetProcessAffinityMask(HANDLE process, uintptr_t* processMask, uintptr_t* systemMask) {
    if (process != CURRENT_PROCESS || processMask == nullptr || systemMask == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    const size_t size = cpuSetSize();
    if (t_lastSetSize != size) {
        CPU_FREE(t_lastSet);
        t_lastSet = CPU_ALLOC(size * 8);
        t_lastSetSize = t_lastSet ? size : 0;
        if (t_lastSet == nullptr) {
            SetLastError(ERROR_NOT_ENOUGH_MEMORY);
            return 0;
        }
    }
    if (sched_getaffinity(0, size, t_lastSet) != 0) {
        SetLastErrorFromErrno();
        return 0;
    }
    uintptr_t mask = 0;
    for (unsigned i = 0; i < sizeof(uintptr_t) * 8; ++i)
        if (CPU_ISSET_S(i, size, t_lastSet)) mask |= static_cast<uintptr_t>(1) << i;
    long configured = sysconf(_SC_NPROCESSORS_CONF);
    if (configured < 1) configured = 1;
    *systemMask = configured >= static_cast<long>(sizeof(uintptr_t) * 8)
                      ? ~static_cast<uintptr_t>(0)
                      : (static_cast<uintptr_t>(1) << configured) - 1;
    *processMask = mask;
    t_lastMask = mask;
    return 1;
}

BOOL SetProcessAffinityMask(HANDLE process, uintptr_t processMask) {
    if (process != CURRENT_PROCESS || processMask == 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    int rc;
    if (t_lastSet != nullptr && processMask == t_lastMask) {
        rc = sched_setaffinity(0, t_lastSetSize, t_lastSet);
    } else {
        cpu_set_t set;
        CPU_ZERO(&set);
        for (unsigned i = 0; i < sizeof(uintptr_t) * 8; ++i)
            if (processMask & (static_cast<uintptr_t>(1) << i)) CPU_SET(i, &set);
        rc = sched_setaffinity(0, sizeof set, &set);
    }
    if (rc != 0) {
        SetLastError(errno == EINVAL ? ERROR_INVALID_PARAMETER : TranslateErrno(errno));
        return 0;
    }
    return 1;
}

void GetProcessorCounts(PROCESSOR_COUNTS* counts) {
    long conf = sysconf(_SC_NPROCESSORS_CONF);
    long onln = sysconf(_SC_NPROCESSORS_ONLN);
    counts->configured = conf > 0 ? static_cast<Uint32>(conf) : 1u;
    counts->online = onln > 0 ? static_cast<Uint32>(onln) : counts->configured;

    const std::string cpuDir = sysfiles::Path("/sys/devices/system/cpu");
    if (DIR* d = opendir(cpuDir.c_str())) {
        Uint32 n = 0;
        while (const dirent* e = readdir(d)) {
            if (strncmp(e->d_name, "cpu", 3) != 0) continue;
            const char* p = e->d_name + 3;
            if (*p == 0) continue;
            while (*p >= '0' && *p <= '9') ++p;
            if (*p == 0) ++n;
        }
        closedir(d);
        if (n > 0) counts->configured = n;
    }
    char buffer[4096];
    if (sysfiles::ReadWhole(cpuDir + "/online", buffer, sizeof buffer) > 0) {
        const Uint32 n = sysfiles::CountCpuList(buffer);
        if (n > 0) counts->online = n;
    }

    counts->usable = counts->online;
    const size_t size = cpuSetSize();
    if (cpu_set_t* set = CPU_ALLOC(size * 8)) {
        if (sched_getaffinity(0, size, set) == 0)
            counts->usable = static_cast<Uint32>(CPU_COUNT_S(size, set));
        CPU_FREE(set);
    }
    CONTROL_GROUP_LIMITS limits;
    sysfiles::ReadControlGroupLimits(&limits);
    if (limits.cpuProcessors != 0 && limits.cpuProcessors < counts->usable)
        counts->usable = limits.cpuProcessors;
}

// ---- the registry

namespace {

const char kProcessorKey[] = "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0";
inline HKEY const PROCESSOR_KEY = reinterpret_cast<HKEY>(static_cast<uintptr_t>(0x5A50524Fu));

// MHz of the first processor, 0 if no source has it.
Uint32 processorMHz() {
    char buffer[256];
    Uint64 khz;
    for (const char* name : {"base_frequency", "cpuinfo_max_freq"}) {
        const std::string p = sysfiles::Path("/sys/devices/system/cpu/cpu0/cpufreq/") + name;
        if (sysfiles::ReadWhole(p, buffer, sizeof buffer) > 0 && sysfiles::ParseU64(buffer, &khz) &&
            khz >= 1000)
            return static_cast<Uint32>((khz + 500) / 1000);
    }
    std::string cpuinfo;
    if (!sysfiles::ReadText(sysfiles::Path("/proc/cpuinfo"), &cpuinfo)) return 0;
    size_t pos = 0;
    for (std::string_view line; sysfiles::NextLine(cpuinfo, &pos, &line);) {
        if (line.compare(0, 7, "cpu MHz") != 0) continue;
        const size_t colon = line.find(':');
        if (colon == std::string_view::npos) continue;
        const std::string value(line.substr(colon + 1));
        char* stop = nullptr;
        const double mhz = strtod(value.c_str(), &stop);
        if (stop != value.c_str() && mhz >= 1 && mhz < 4e9) return static_cast<Uint32>(mhz + 0.5);
    }
    return 0;
}

}  // namespace

Sint32 RegOpenKeyExA(HKEY key, const char* subKey, Uint32 /*options*/, Uint32 /*desired*/,
                     HKEY* result) {
    if (result == nullptr) return ERROR_INVALID_PARAMETER;
    if (key != HKEY_LOCAL_MACHINE || subKey == nullptr || strcmp(subKey, kProcessorKey) != 0)
        return ERROR_FILE_NOT_FOUND;
    *result = PROCESSOR_KEY;
    return ERROR_SUCCESS;
}

Sint32 RegQueryValueExA(HKEY key, const char* valueName, Uint32* /*reserved*/, Uint32* type,
                        Uint8* data, Uint32* size) {
    if (key != PROCESSOR_KEY) return ERROR_INVALID_HANDLE;
    if (valueName == nullptr || strcmp(valueName, "~MHZ") != 0) return ERROR_FILE_NOT_FOUND;
    const Uint32 mhz = processorMHz();
    if (mhz == 0) return ERROR_FILE_NOT_FOUND;
    if (type) *type = REG_DWORD;
    if (size == nullptr) return data ? ERROR_INVALID_PARAMETER : ERROR_SUCCESS;
    if (data != nullptr && *size < 4) {
        *size = 4;
        return 234;  // more data
    }
    *size = 4;
    if (data) memcpy(data, &mhz, 4);
    return ERROR_SUCCESS;
}

Sint32 RegCloseKey(HKEY key) {
    return key == PROCESSOR_KEY ? ERROR_SUCCESS : ERROR_INVALID_HANDLE;
}

// ---- memory

namespace {

// The user address space of a process: what the kernel lets mmap hand out without a hint above
// the default boundary.
Uint64 userAddressSpace() {
#if defined(__x86_64__)
    return (static_cast<Uint64>(1) << 47) - 4096;
#elif defined(__aarch64__)
    return static_cast<Uint64>(1) << 48;
#else
    return sizeof(void*) == 8 ? static_cast<Uint64>(1) << 47 : static_cast<Uint64>(3) << 30;
#endif
}

}  // namespace

BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status) {
    if (status == nullptr || status->dwLength != sizeof(MEMORYSTATUSEX)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    char buffer[8192];
    if (sysfiles::ReadWhole(sysfiles::Path("/proc/meminfo"), buffer, sizeof buffer) < 0) {
        SetLastErrorFromErrno();
        return 0;
    }
    Uint64 total = 0, available = 0, free = 0, buffers = 0, cached = 0, swapTotal = 0, swapFree = 0;
    bool haveTotal = false, haveAvailable = false;
    for (char* line = buffer; *line;) {
        char* end = strchr(line, '\n');
        std::string_view l(line, end ? static_cast<size_t>(end - line) : strlen(line));
        const size_t colon = l.find(':');
        if (colon != std::string_view::npos) {
            std::string_view key = l.substr(0, colon);
            Uint64 kb;
            if (sysfiles::ParseU64(l.substr(colon + 1), &kb)) {
                kb *= 1024;
                if (key == "MemTotal")
                    total = kb, haveTotal = true;
                else if (key == "MemAvailable")
                    available = kb, haveAvailable = true;
                else if (key == "MemFree")
                    free = kb;
                else if (key == "Buffers")
                    buffers = kb;
                else if (key == "Cached")
                    cached = kb;
                else if (key == "SwapTotal")
                    swapTotal = kb;
                else if (key == "SwapFree")
                    swapFree = kb;
            }
        }
        if (!end) break;
        line = end + 1;
    }
    if (!haveTotal) {
        SetLastError(ERROR_INVALID_FUNCTION);
        return 0;
    }
    // Kernels before 3.14 don't estimate what is available; free memory and the page cache is
    // the estimate they leave to user space.
    if (!haveAvailable) available = free + buffers + cached;
    if (available > total) available = total;
    if (swapFree > swapTotal) swapFree = swapTotal;

    CONTROL_GROUP_LIMITS g;
    sysfiles::ReadControlGroupLimits(&g);
    if (g.memoryLimit < total) total = g.memoryLimit;
    if (g.memoryHeadroom < available) available = g.memoryHeadroom;
    if (available > total) available = total;
    if (g.swapLimit < swapTotal) swapTotal = g.swapLimit;
    if (g.swapHeadroom < swapFree) swapFree = g.swapHeadroom;
    if (swapFree > swapTotal) swapFree = swapTotal;

    Uint64 space = userAddressSpace();
    struct rlimit rl;
    if (getrlimit(RLIMIT_AS, &rl) == 0 && rl.rlim_cur != RLIM_INFINITY && rl.rlim_cur < space)
        space = rl.rlim_cur;
    Uint64 mapped = 0;
    char statm[256];
    if (sysfiles::ReadWhole(sysfiles::Path("/proc/self/statm"), statm, sizeof statm) > 0 &&
        sysfiles::ParseU64(statm, &mapped))
        mapped *= static_cast<Uint64>(sysconf(_SC_PAGESIZE));

    status->dwMemoryLoad = total ? static_cast<Uint32>(100 - available * 100 / total) : 0;
    status->ullTotalPhys = total;
    status->ullAvailPhys = available;
    status->ullTotalPageFile = total + swapTotal;
    status->ullAvailPageFile = available + swapFree;
    status->ullTotalVirtual = space;
    status->ullAvailVirtual = mapped < space ? space - mapped : 0;
    status->ullAvailExtendedVirtual = 0;
    return 1;
}

void GlobalMemoryStatus(MEMORYSTATUS* status) {
    auto clamp = [](unsigned long long v) {
        return v > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<Uint32>(v);
    };
    struct sysinfo si;
    memset(&si, 0, sizeof si);
    sysinfo(&si);
    const unsigned long long unit = si.mem_unit ? si.mem_unit : 1;
    const unsigned long long total = si.totalram * unit, avail = (si.freeram + si.bufferram) * unit;
    status->dwLength = sizeof *status;
    status->dwMemoryLoad = total ? static_cast<Uint32>(100 - avail * 100 / total) : 0;
    status->dwTotalPhys = clamp(total);
    status->dwAvailPhys = clamp(avail);
    status->dwTotalPageFile = clamp(total + si.totalswap * unit);
    status->dwAvailPageFile = clamp(avail + si.freeswap * unit);
    status->dwTotalVirtual = clamp(userAddressSpace());
    status->dwAvailVirtual = status->dwTotalVirtual;
}

// ---- operating system

BOOL GetComputerNameA(char* buffer, Uint32* size) {
    struct utsname u;
    if (buffer == nullptr || size == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (uname(&u) != 0) {
        SetLastErrorFromErrno();
        return 0;
    }
    const size_t n = strlen(u.nodename);
    if (n + 1 > *size) {
        *size = static_cast<Uint32>(n + 1);
        SetLastError(111);  // buffer overflow
        return 0;
    }
    memcpy(buffer, u.nodename, n + 1);
    *size = static_cast<Uint32>(n);
    return 1;
}

BOOL GetVersionExA(OSVERSIONINFOA* info) {
    struct utsname u;
    if (info == nullptr || info->dwOSVersionInfoSize != sizeof(OSVERSIONINFOA)) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return 0;
    }
    if (uname(&u) != 0) {
        SetLastErrorFromErrno();
        return 0;
    }
    Uint32 number[3] = {0, 0, 0};
    const char* p = u.release;
    for (int k = 0; k < 3 && *p >= '0' && *p <= '9'; ++k) {
        Uint64 v = 0;
        while (*p >= '0' && *p <= '9') v = v * 10 + static_cast<Uint64>(*p++ - '0');
        number[k] = static_cast<Uint32>(v);
        if (*p != '.') break;
        ++p;
    }
    info->dwMajorVersion = number[0];
    info->dwMinorVersion = number[1];
    info->dwBuildNumber = number[2];
    info->dwPlatformId = VER_PLATFORM_LINUX;
    snprintf(info->szCSDVersion, sizeof info->szCSDVersion, "%s", u.release);
    snprintf(info->szSystemName, sizeof info->szSystemName, "%s", u.sysname);
    return 1;
}

Uint32 GetSystemDirectoryA(char* buffer, Uint32 size) {
    static const char kDir[] = "/usr/bin";
    const Uint32 n = sizeof kDir - 1;
    if (buffer == nullptr || size < n + 1) return n + 1;
    memcpy(buffer, kDir, n + 1);
    return n;
}

// ---- disks and mounts

namespace sysfiles {

bool IsPseudoFileSystem(std::string_view type) {
    static const char* const kPseudo[] = {
        "proc",    "sysfs",     "cgroup",     "cgroup2",     "devpts",   "mqueue",
        "debugfs", "tracefs",   "securityfs", "pstore",      "bpf",      "configfs",
        "fusectl", "hugetlbfs", "autofs",     "binfmt_misc", "efivarfs", "rpc_pipefs",
        "nsfs",    "selinuxfs", "devtmpfs",   "nfsd"};
    for (const char* p : kPseudo)
        if (type == p) return true;
    return false;
}

}  // namespace sysfiles

namespace {

// The mount that holds `path`: the longest mount point that is a prefix of its resolved form;
// of equal ones the last mounted, which hides the others.
bool findMount(const char* path, sysfiles::MountEntry* found) {
    char resolved[PATH_MAX];
    if (realpath(path, resolved) == nullptr) return false;
    std::string table;
    if (!sysfiles::ReadText(sysfiles::Path("/proc/self/mountinfo"), &table)) return false;
    const std::string_view r(resolved);
    size_t best = 0;
    bool any = false;
    size_t pos = 0;
    for (std::string_view line; sysfiles::NextLine(table, &pos, &line);) {
        sysfiles::MountEntry m;
        if (!sysfiles::ParseMountLine(line, &m)) continue;
        const std::string& mp = m.mountPoint;
        const bool prefix = mp == "/" || (r.compare(0, mp.size(), mp) == 0 &&
                                          (r.size() == mp.size() || r[mp.size()] == '/'));
        if (!prefix || mp.size() < best) continue;
        best = mp.size();
        *found = std::move(m);
        any = true;
    }
    return any;
}

void copyCut(char* to, Uint32 size, const std::string& from) {
    if (to == nullptr || size == 0) return;
    const size_t n = from.size() < size - 1 ? from.size() : size - 1;
    memcpy(to, from.data(), n);
    to[n] = 0;
}

// statvfs of a path the caller names, failing as the platform's volume calls do: 87 for none, 2
// or 3 for a path that isn't there.
bool statVolume(const char* path, struct statvfs* v) {
    if (path == nullptr) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return false;
    }
    if (statvfs(path, v) == 0) return true;
    if (errno == ENOENT)
        SetLastError(NotFoundError(path));
    else
        SetLastErrorFromErrno();
    return false;
}

}  // namespace

BOOL GetDiskFreeSpaceExA(const char* directory, Uint64* freeToCaller, Uint64* totalBytes,
                         Uint64* totalFree) {
    struct statvfs v;
    if (!statVolume(directory, &v)) return 0;
    const Uint64 unit = v.f_frsize ? v.f_frsize : v.f_bsize;
    if (freeToCaller) *freeToCaller = static_cast<Uint64>(v.f_bavail) * unit;
    if (totalBytes) *totalBytes = static_cast<Uint64>(v.f_blocks) * unit;
    if (totalFree) *totalFree = static_cast<Uint64>(v.f_bfree) * unit;
    return 1;
}

BOOL GetVolumeInformationA(const char* root, char* volumeName, Uint32 volumeNameSize,
                           Uint32* serialNumber, Uint32* maxComponentLength,
                           Uint32* fileSystemFlags, char* fileSystemName,
                           Uint32 fileSystemNameSize) {
    struct statvfs v;
    if (!statVolume(root, &v)) return 0;
    sysfiles::MountEntry m;
    if (!findMount(root, &m)) {
        SetLastError(ERROR_NOT_READY);
        return 0;
    }
    copyCut(volumeName, volumeNameSize, m.source);
    copyCut(fileSystemName, fileSystemNameSize, m.type);
    if (serialNumber) *serialNumber = 0;
    if (fileSystemFlags) *fileSystemFlags = 0;
    if (maxComponentLength) *maxComponentLength = static_cast<Uint32>(v.f_namemax);
    return 1;
}

Uint32 GetDriveTypeA(const char* root) {
    struct stat st;
    if (root == nullptr || stat(root, &st) != 0) return DRIVE_NO_ROOT_DIR;
    sysfiles::MountEntry m;
    if (!findMount(root, &m)) return DRIVE_UNKNOWN;
    const std::string& t = m.type;
    if (t == "tmpfs" || t == "ramfs") return DRIVE_RAMDISK;
    if (t == "iso9660" || t == "udf") return DRIVE_CDROM;
    for (const char* remote : {"nfs", "nfs4", "cifs", "smb3", "smbfs", "ceph", "9p", "afs",
                               "fuse.sshfs", "glusterfs", "lustre"})
        if (t == remote) return DRIVE_REMOTE;
    // A partition's removable flag is its disk's: the directory above it in /sys.
    const std::string dev =
        sysfiles::Path("/sys/dev/block/") + std::to_string(m.major) + ":" + std::to_string(m.minor);
    char flag[16];
    if (sysfiles::ReadWhole(dev + "/removable", flag, sizeof flag) <= 0) {
        char resolved[PATH_MAX];
        if (realpath(dev.c_str(), resolved) == nullptr ||
            sysfiles::ReadWhole(std::string(resolved) + "/../removable", flag, sizeof flag) <= 0)
            flag[0] = '0';
    }
    return flag[0] == '1' ? DRIVE_REMOVABLE : DRIVE_FIXED;
}

Uint32 GetLogicalDriveStringsA(Uint32 size, char* buffer) {
    std::string table;
    if (!sysfiles::ReadText(sysfiles::Path("/proc/self/mountinfo"), &table)) {
        SetLastErrorFromErrno();
        return 0;
    }
    std::string list;  // the names, each with its NUL
    size_t pos = 0;
    for (std::string_view line; sysfiles::NextLine(table, &pos, &line);) {
        sysfiles::MountEntry m;
        if (!sysfiles::ParseMountLine(line, &m) || sysfiles::IsPseudoFileSystem(m.type) ||
            m.mountPoint.empty())
            continue;
        // A point mounted over again is listed once.
        bool again = false;
        for (size_t at = 0; at < list.size(); at += strlen(list.c_str() + at) + 1)
            if (m.mountPoint == list.c_str() + at) again = true;
        if (again) continue;
        if (buffer == nullptr || list.size() + m.mountPoint.size() + 2 > size) break;
        list.append(m.mountPoint).push_back(0);
    }
    if (buffer == nullptr || size == 0) {
        SetLastError(ERROR_INSUFFICIENT_BUFFER);
        return 0;
    }
    memcpy(buffer, list.data(), list.size());
    buffer[list.size()] = 0;
    return static_cast<Uint32>(list.size());
}

// ---- processor load

BOOL GetLoadAverages(double averages[3]) {
    char buffer[256];
    if (sysfiles::ReadWhole(sysfiles::Path("/proc/loadavg"), buffer, sizeof buffer) < 0) {
        SetLastErrorFromErrno();
        return 0;
    }
    double a[3];
    if (sscanf(buffer, "%lf %lf %lf", &a[0], &a[1], &a[2]) != 3) {
        SetLastError(13);  // invalid data
        return 0;
    }
    averages[0] = a[0], averages[1] = a[1], averages[2] = a[2];
    return 1;
}

namespace {

// The "cpu" line's fields in their order; a kernel gives a prefix of them (four on the oldest).
enum Tick { USER, NICE, SYSTEM, IDLE, IOWAIT, IRQ, SOFTIRQ, STEAL, TICKS };

struct Sample {
    Uint64 tick[TICKS] = {};
    int fields = 0;
};

enum CounterKind { PROCESSOR, USER_TIME, PRIVILEGED, INTERRUPT, IDLE_TIME, KINDS };
const char* const kCounterNames[KINDS] = {"% Processor Time", "% User Time", "% Privileged Time",
                                          "% Interrupt Time", "% Idle Time"};

inline constexpr Uint32 QUERY_MAGIC = 0x5A504451u;  // "ZPDQ"
struct PdhQuery;
struct PdhCounter {
    PdhQuery* query;
    CounterKind kind;
};
struct PdhQuery {
    Uint32 magic = QUERY_MAGIC;
    Sample previous, current;
    int samples = 0;
    PdhCounter* counters[16] = {};
    int counterCount = 0;
};

PdhQuery* queryOf(PDH_HQUERY q) {
    PdhQuery* query = static_cast<PdhQuery*>(q);
    return query != nullptr && query->magic == QUERY_MAGIC ? query : nullptr;
}

bool readSample(Sample* s) {
    char buffer[512];  // the first line is all that is read
    if (sysfiles::ReadWhole(sysfiles::Path("/proc/stat"), buffer, sizeof buffer) <= 0) return false;
    if (strncmp(buffer, "cpu ", 4) != 0) return false;
    const char* p = buffer + 4;
    s->fields = 0;
    while (s->fields < TICKS) {
        while (*p == ' ') ++p;
        if (*p < '0' || *p > '9') break;
        char* end;
        s->tick[s->fields++] = strtoull(p, &end, 10);
        p = end;
    }
    return s->fields >= 4;
}

}  // namespace

PDH_STATUS PdhOpenQueryA(const char* dataSource, uintptr_t /*userData*/, PDH_HQUERY* query) {
    if (query == nullptr) return PDH_INVALID_ARGUMENT;
    if (dataSource != nullptr) return PDH_INVALID_ARGUMENT;  // live data only; no log files
    PdhQuery* q = new (std::nothrow) PdhQuery;
    if (q == nullptr) return PDH_MEMORY_ALLOCATION_FAILURE;
    *query = q;
    return 0;
}

PDH_STATUS PdhAddCounterA(PDH_HQUERY query, const char* path, uintptr_t /*userData*/,
                          PDH_HCOUNTER* counter) {
    PdhQuery* q = queryOf(query);
    if (q == nullptr) return PDH_INVALID_HANDLE;
    if (path == nullptr || counter == nullptr) return PDH_INVALID_ARGUMENT;
    std::string_view p(path);
    if (p.substr(0, 2) == "\\\\") {
        const size_t end = p.find('\\', 2);
        if (end == std::string_view::npos) return PDH_CSTATUS_NO_MACHINE;
        char node[256];
        Uint32 size = sizeof node;
        if (!GetComputerNameA(node, &size) || p.substr(2, end - 2) != node)
            return PDH_CSTATUS_NO_MACHINE;
        p.remove_prefix(end);
    }
    static const char kObject[] = "\\Processor(_Total)\\";
    if (p.substr(0, sizeof kObject - 1) != kObject) return PDH_CSTATUS_NO_OBJECT;
    p.remove_prefix(sizeof kObject - 1);
    int kind = 0;
    while (kind < KINDS && p != kCounterNames[kind]) ++kind;
    if (kind == KINDS) return PDH_CSTATUS_NO_COUNTER;
    if (q->counterCount == 16) return PDH_MEMORY_ALLOCATION_FAILURE;
    PdhCounter* c = new (std::nothrow) PdhCounter{q, static_cast<CounterKind>(kind)};
    if (c == nullptr) return PDH_MEMORY_ALLOCATION_FAILURE;
    q->counters[q->counterCount++] = c;
    *counter = c;
    return 0;
}

PDH_STATUS PdhCollectQueryData(PDH_HQUERY query) {
    PdhQuery* q = queryOf(query);
    if (q == nullptr) return PDH_INVALID_HANDLE;
    Sample s;
    if (!readSample(&s)) return PDH_NO_DATA;
    q->previous = q->current;
    q->current = s;
    if (q->samples < 2) ++q->samples;
    return 0;
}

PDH_STATUS PdhGetFormattedCounterValue(PDH_HCOUNTER counter, Uint32 format, Uint32* type,
                                       PDH_FMT_COUNTERVALUE* value) {
    PdhCounter* c = static_cast<PdhCounter*>(counter);
    if (c == nullptr || queryOf(c->query) == nullptr) return PDH_INVALID_HANDLE;
    if (value == nullptr || (format & PDH_FMT_DOUBLE) == 0) return PDH_INVALID_ARGUMENT;
    if (type) *type = 0x00020000u | 0x00000400u;  // a percentage of elapsed time
    const PdhQuery& q = *c->query;
    PDH_STATUS status = 0;
    double percent = 0;
    const int fields = q.previous.fields < q.current.fields ? q.previous.fields : q.current.fields;
    if (q.samples < 2) {
        status = PDH_INVALID_DATA;
    } else if (c->kind == INTERRUPT && fields <= SOFTIRQ) {
        status = PDH_CSTATUS_INVALID_DATA;
    } else {
        Uint64 delta[TICKS] = {}, total = 0;
        for (int i = 0; i < fields; ++i) {
            if (q.current.tick[i] < q.previous.tick[i]) status = PDH_CALC_NEGATIVE_VALUE;
            delta[i] = q.current.tick[i] - q.previous.tick[i];
            total += delta[i];
        }
        if (status == 0 && total == 0) status = PDH_CALC_NEGATIVE_DENOMINATOR;
        if (status == 0) {
            Uint64 part = 0;
            switch (c->kind) {
                case PROCESSOR:
                    part = total - delta[IDLE] - delta[IOWAIT];
                    break;
                case USER_TIME:
                    part = delta[USER] + delta[NICE];
                    break;
                case PRIVILEGED:
                    part = delta[SYSTEM];
                    break;
                case INTERRUPT:
                    part = delta[IRQ] + delta[SOFTIRQ];
                    break;
                case IDLE_TIME:
                    part = delta[IDLE] + delta[IOWAIT];
                    break;
                default:
                    break;
            }
            percent = 100.0 * static_cast<double>(part) / static_cast<double>(total);
        }
    }
    value->CStatus = status;
    value->doubleValue = percent;
    return status;
}

PDH_STATUS PdhCloseQuery(PDH_HQUERY query) {
    PdhQuery* q = queryOf(query);
    if (q == nullptr) return PDH_INVALID_HANDLE;
    for (int i = 0; i < q->counterCount; ++i) delete q->counters[i];
    q->magic = 0;
    delete q;
    return 0;
}

}  // namespace zepos
