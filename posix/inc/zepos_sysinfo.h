// zepos_sysinfo.h - the machine's facts, in the forms the system-information queries expect.
//
// The queries were designed against a registry value, a memory status record, a version
// record, a drive list and performance counters. Here each of those calls reads the same fact
// from Linux: /proc, /sys, sysconf, uname, statvfs, the mount table and the process's control
// group. docs/sysinfo.md lists every value's source.
//
// Control groups. The values a caller sizes work by (memory, processors, swap) are bounded by
// the limits of the process's control group: v1 where the controller is mounted on a v1
// hierarchy, v2 otherwise. The group's directory is found from /proc/self/cgroup and the mount
// table, and every level from it up to the hierarchy's root is read: the lowest limit wins, and
// what the group may still take is the least headroom (limit - usage) of the levels that have
// one. "max", -1 and the kernel's sentinel for "no limit" (a page counter's maximum, 2^63 less a
// page) all mean no limit.
//
// Every file is read below a root that is "" in the library; the library's tests point it at
// recorded copies of /proc and /sys (SetSystemFilesRoot).
#ifndef ZEPOS_SYSINFO_H
#define ZEPOS_SYSINFO_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "zeptypes.h"

namespace zepos {

// ---- the files' root (tests only)

// Every /proc, /sys and control-group file is read below `root` ("" or null: the real ones).
// Not for concurrent use with the readers.
void SetSystemFilesRoot(const char* root);

// ---- processors

// The calling thread's affinity stands in for the process's: a mask of the first 64 processors.
HANDLE GetCurrentProcess();
BOOL GetProcessAffinityMask(HANDLE process, uintptr_t* processMask, uintptr_t* systemMask);
// Binds the calling thread; the mask must name a processor the thread may use (87 otherwise).
BOOL SetProcessAffinityMask(HANDLE process, uintptr_t processMask);

// The three numbers the platform gives as one: processors configured on the machine (cpuN
// directories of /sys/devices/system/cpu), online (its "online" list), and those this process
// may use: its affinity, further limited by its group's CPU quota (quota / period, rounded up).
// Never fails; a file that can't be read leaves the count of the layer below it.
struct PROCESSOR_COUNTS {
    Uint32 configured;
    Uint32 online;
    Uint32 usable;
};
void GetProcessorCounts(PROCESSOR_COUNTS* counts);

// ---- the registry: the one key and value the library reads

typedef void* HKEY;
inline HKEY const HKEY_LOCAL_MACHINE = reinterpret_cast<HKEY>(static_cast<uintptr_t>(0x80000002));
inline constexpr Uint32 KEY_QUERY_VALUE = 0x0001;
inline constexpr Uint32 REG_DWORD = 4;

// "HARDWARE\\DESCRIPTION\\System\\CentralProcessor\\0" under HKEY_LOCAL_MACHINE opens; any other
// key gives 2. The results are error numbers, 0 on success, as the platform's registry calls give.
Sint32 RegOpenKeyExA(HKEY key, const char* subKey, Uint32 options, Uint32 desired, HKEY* result);
// "~MHZ" of that key: the processor's base frequency (cpufreq's base_frequency), else its
// highest (cpuinfo_max_freq), else the "cpu MHz" of /proc/cpuinfo, as a REG_DWORD of MHz.
// 2 when none of them exists, 234 (more data) when *size is below 4, 2 for any other value.
Sint32 RegQueryValueExA(HKEY key, const char* valueName, Uint32* reserved, Uint32* type,
                        Uint8* data, Uint32* size);
Sint32 RegCloseKey(HKEY key);

// ---- memory

// In bytes. Physical memory is the smaller of the machine's and the control group's limit;
// available memory likewise bounded by what the group may still take. The page file counts
// physical memory as the platform's does: ullTotalPageFile = total physical + swap (the group's
// swap limit applied), ullAvailPageFile = available physical + free swap. The virtual numbers
// are the process's user address space (or its RLIMIT_AS if lower) and what of it isn't mapped.
struct MEMORYSTATUSEX {
    Uint32 dwLength;  // 64
    Uint32 dwMemoryLoad;
    Uint64 ullTotalPhys;
    Uint64 ullAvailPhys;
    Uint64 ullTotalPageFile;
    Uint64 ullAvailPageFile;
    Uint64 ullTotalVirtual;
    Uint64 ullAvailVirtual;
    Uint64 ullAvailExtendedVirtual;
};
// FALSE (last error 87) for a dwLength other than 64; FALSE with the reason when
// /proc/meminfo can't be read.
BOOL GlobalMemoryStatusEx(MEMORYSTATUSEX* status);

// The old call: 32-bit numbers (clamped), from sysinfo(2) without the control group. Can't fail.
struct MEMORYSTATUS {
    Uint32 dwLength;
    Uint32 dwMemoryLoad;
    Uint32 dwTotalPhys;
    Uint32 dwAvailPhys;
    Uint32 dwTotalPageFile;
    Uint32 dwAvailPageFile;
    Uint32 dwTotalVirtual;
    Uint32 dwAvailVirtual;
};
void GlobalMemoryStatus(MEMORYSTATUS* status);

// The limits of the process's control group as found below the files' root, for the calls above
// and for the tests. UINT64_MAX (memory, swap) and 0 (processors) mean no limit.
struct CONTROL_GROUP_LIMITS {
    Uint64 memoryLimit;     // lowest limit of all levels
    Uint64 memoryHeadroom;  // least (limit - usage) of the levels with a limit
    Uint64 swapLimit;       // lowest swap limit (v1: memory+swap limit less memory limit)
    Uint64 swapHeadroom;
    Uint32 cpuProcessors;  // lowest quota / period, rounded up
    Uint32 version;        // 1 or 2 for the memory controller's hierarchy, 0 if none was found
};
void GetControlGroupLimits(CONTROL_GROUP_LIMITS* limits);

// ---- operating system

// The node name; FALSE with 111 (buffer overflow) and the needed size if *size is too small.
BOOL GetComputerNameA(char* buffer, Uint32* size);

// The kernel's version from uname: major and minor of its release, the release string in
// szCSDVersion, and the kernel's name, which the platform's record has no field for, in
// szSystemName. dwPlatformId is VER_PLATFORM_LINUX.
inline constexpr Uint32 VER_PLATFORM_LINUX = 0x4C;
struct OSVERSIONINFOA {
    Uint32 dwOSVersionInfoSize;
    Uint32 dwMajorVersion;
    Uint32 dwMinorVersion;
    Uint32 dwBuildNumber;  // the patch level, the third number of the release
    Uint32 dwPlatformId;
    char szCSDVersion[128];
    char szSystemName[65];
};
BOOL GetVersionExA(OSVERSIONINFOA* info);

// "/usr/bin": its length, or the size needed (terminator included) when `size` is too small.
Uint32 GetSystemDirectoryA(char* buffer, Uint32 size);

// ---- disks and mounts

// Sizes by statvfs: the caller's share of the free space (f_bavail), the size and the free space
// (f_bfree) in bytes; any pointer may be null. Fails with the translated errno (2 or 3 for a
// missing path).
BOOL GetDiskFreeSpaceExA(const char* directory, Uint64* freeToCaller, Uint64* totalBytes,
                         Uint64* totalFree);

// The file system holding `root` (any path on it): the mount table's entry whose mount point is
// the longest prefix of the resolved path. The volume name is the mount's source (a device, a
// label, "tmpfs", "overlay"), the type the kernel's name for it ("ext4", "xfs", "tmpfs"), the
// longest component statvfs's f_namemax. Strings are cut to their buffers. The serial number is
// 0 and the flags 0. On success the last error is left alone.
BOOL GetVolumeInformationA(const char* root, char* volumeName, Uint32 volumeNameSize,
                           Uint32* serialNumber, Uint32* maxComponentLength,
                           Uint32* fileSystemFlags, char* fileSystemName,
                           Uint32 fileSystemNameSize);

enum : Uint32 {
    DRIVE_UNKNOWN = 0,      // no mount holds it
    DRIVE_NO_ROOT_DIR = 1,  // the path doesn't exist
    DRIVE_REMOVABLE = 2,    // a block device whose /sys/dev/block/<dev>/removable is 1
    DRIVE_FIXED = 3,
    DRIVE_REMOTE = 4,   // network file systems
    DRIVE_CDROM = 5,    // iso9660, udf
    DRIVE_RAMDISK = 6,  // tmpfs, ramfs
};
Uint32 GetDriveTypeA(const char* root);

// The mount points of the real file systems of /proc/self/mountinfo, in mount order, each once,
// as NUL-ended strings followed by an empty one; pseudo file systems (proc, sysfs, cgroup,
// devpts, mqueue and their kin) are left out. Only whole names are written: the list stops
// before the first that doesn't fit with the final empty string, so it never overflows `size`.
// Returns the characters written, the final NUL not counted; 0 with the reason on failure.
Uint32 GetLogicalDriveStringsA(Uint32 size, char* buffer);

// ---- processor load

// The 1, 5 and 15 minute load averages of /proc/loadavg; FALSE with the reason if it can't be
// read or parsed (13, invalid data).
BOOL GetLoadAverages(double averages[3]);

// The performance-data calls, over the "cpu" line of /proc/stat. A query samples the line at
// each collection; a counter's value is its share of the ticks between the last two samples,
// in percent:
//   "% Processor Time"   100 - idle share           "% User Time"      user + nice
//   "% Privileged Time"  system                     "% Interrupt Time" irq + softirq
//   "% Idle Time"        idle + iowait
// The ticks counted are user, nice, system, idle, iowait, irq, softirq and steal (guest time is
// inside user already). A path is "\\<this node>\Processor(_Total)\<counter>", or the same
// without the machine part. The results are PDH status words, 0 on success.
typedef void* PDH_HQUERY;
typedef void* PDH_HCOUNTER;
typedef Uint32 PDH_STATUS;
enum : Uint32 {
    PDH_CSTATUS_NO_MACHINE = 0x800007D0u,
    PDH_NO_DATA = 0x800007D5u,
    PDH_CALC_NEGATIVE_DENOMINATOR = 0x800007D6u,
    PDH_CALC_NEGATIVE_VALUE = 0x800007D8u,
    PDH_CSTATUS_NO_OBJECT = 0xC0000BB8u,
    PDH_CSTATUS_NO_COUNTER = 0xC0000BB9u,
    PDH_CSTATUS_INVALID_DATA = 0xC0000BBAu,  // the kernel's line lacks the counter's fields
    PDH_MEMORY_ALLOCATION_FAILURE = 0xC0000BBBu,
    PDH_INVALID_HANDLE = 0xC0000BBCu,
    PDH_INVALID_ARGUMENT = 0xC0000BBDu,
    PDH_INVALID_DATA = 0xC0000BC6u,  // fewer than two samples yet
};
inline constexpr Uint32 PDH_FMT_DOUBLE = 0x200;
struct PDH_FMT_COUNTERVALUE {
    Uint32 CStatus;
    double doubleValue;
};
PDH_STATUS PdhOpenQueryA(const char* dataSource, uintptr_t userData, PDH_HQUERY* query);
PDH_STATUS PdhAddCounterA(PDH_HQUERY query, const char* counterPath, uintptr_t userData,
                          PDH_HCOUNTER* counter);
// PDH_NO_DATA when /proc/stat can't be read or has no "cpu" line.
PDH_STATUS PdhCollectQueryData(PDH_HQUERY query);
PDH_STATUS PdhGetFormattedCounterValue(PDH_HCOUNTER counter, Uint32 format, Uint32* type,
                                       PDH_FMT_COUNTERVALUE* value);
// Frees the query and its counters.
PDH_STATUS PdhCloseQuery(PDH_HQUERY query);

// ---- the readers underneath, for the library's tests

namespace sysfiles {

inline constexpr Uint64 NO_LIMIT = UINT64_MAX;

// `path` below the files' root.
std::string Path(std::string_view path);
// The file's bytes, NUL-ended, up to size - 1 of them: the count, or -1 with errno.
long ReadWhole(const std::string& path, char* buffer, size_t size);
bool ReadText(const std::string& path, std::string* text);
// Decimal digits after blanks; false without any or on overflow.
bool ParseU64(std::string_view s, Uint64* value);
// A control group's limit: "max", a negative number and the kernel's sentinel give NO_LIMIT.
Uint64 ParseLimit(std::string_view s);
// Processors in a list such as "0-3,8,10-11".
Uint32 CountCpuList(std::string_view s);
// A comma-separated option list has `option`.
bool HasOption(std::string_view options, std::string_view option);
// The line of `text` at `*pos`, without its newline, and `*pos` past it; false at the end.
bool NextLine(std::string_view text, size_t* pos, std::string_view* line);

// One line of /proc/self/mountinfo, octal escapes undone.
struct MountEntry {
    Uint32 major = 0, minor = 0;
    std::string root, mountPoint, type, source, superOptions;
};
bool ParseMountLine(std::string_view line, MountEntry* entry);
// A file system type that holds no files of its own (proc, sysfs, cgroup, ...).
bool IsPseudoFileSystem(std::string_view type);

// The control group's limits, its directories cached until /proc/self/cgroup changes.
void ReadControlGroupLimits(CONTROL_GROUP_LIMITS* limits);
void ForgetControlGroup();  // with the root's lock held

}  // namespace sysfiles

}  // namespace zepos

#endif
