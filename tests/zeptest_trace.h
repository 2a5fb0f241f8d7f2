// Trace dumps written and read back as the tools do it, for the trace suites.
#pragma once

#include <memory>

#include "zeptest_util.h"

namespace zeptest {

// An instantaneous dump of the attached trace at `path`: header, store and, of a ring, the tail;
// behind `lead` bytes of other data, without its last `cut` bytes.
inline void writeTraceDump(const std::string& path, size_t lead = 0, size_t cut = 0) {
    auto header = std::make_unique<Uint8[]>(sizeof(GTDumpHeader));
    void* store = nullptr;
    Uint32 size = 0;
    RamboDumpTail tail;
    EXPECT_EQ(
        gtraceGetDumpHeaderBuffer(1, reinterpret_cast<GTDumpHeader*>(header.get()), &store, &size),
        0u);
    EXPECT_EQ(gtraceGetDumpTail(&tail), 0u);
    std::string bytes(lead, 'x');
    bytes.append(reinterpret_cast<char*>(header.get()), sizeof(GTDumpHeader));
    bytes.append(static_cast<char*>(store), size);
    if (!(g_pGTCB->options.modeBits & GTRACE_MODE_COUNTING))
        bytes.append(reinterpret_cast<char*>(&tail), sizeof tail);
    std::ofstream(path, std::ios::binary) << bytes.substr(0, bytes.size() - cut);
}

inline void openToRead(ZEPHFile& file, const std::string& path) {
    ZEPFileOpenParam op;
    op.path = path.c_str();
    op.creation = ZEP_FILE_OPEN_EXISTING;
    op.access = ZEP_FILE_ACCESS_READ;
    EXPECT_EQ(file.open(&op), 0u);
}

// Every record (a ring's) or used entry (a counting table's) of the dump at `path`, in walk order,
// after validating it if asked.
inline std::vector<std::vector<Uint8>> readTraceDump(const std::string& path, bool forward,
                                                     bool validate) {
    ZEPHFile file;
    openToRead(file, path);
    if (validate) {
        EXPECT_EQ(gtraceValidateDumpFile(&file, 0), 0u);
    }
    GTDumpParser p;
    EXPECT_EQ(gtraceOpenDumpFileParser(&file, &p, forward), 0u);
    std::vector<std::vector<Uint8>> out;
    std::vector<Uint8> buf(0x20000);
    for (Uint32 n; (n = gtraceParseRecords(&file, &p, nullptr, buf.data(), 0x20000)) != 0;)
        out.emplace_back(buf.begin(), buf.begin() + n);
    EXPECT_EQ(gtraceCloseDumpFileParser(&p), 0u);
    EXPECT_EQ(gtraceCloseDumpFileParser(&p), ECF_INVALID_PARAMETER);
    return out;
}

}  // namespace zeptest
