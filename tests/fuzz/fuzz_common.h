// What the fuzz targets share: the input as a file that the library's readers open, and the
// laying out of a short input as a whole dump.
#pragma once

#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include "zep.h"

namespace zepfuzz {

// One file per process, rewritten for every input and removed at exit.
inline const char* inputPath() {
    static std::string path = [] {
        char tmpl[] = "/tmp/zepfuzzXXXXXX";
        int fd = mkstemp(tmpl);
        if (fd < 0) abort();
        close(fd);
        static std::string keep = tmpl;
        atexit([] { unlink(keep.c_str()); });
        return keep;
    }();
    return path.c_str();
}

inline void writeInput(const std::string& bytes) {
    int fd = open(inputPath(), O_WRONLY | O_TRUNC);
    if (fd < 0 || write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()))
        abort();
    close(fd);
}

inline bool openInput(ZEPHFile* file) {
    ZEPFileOpenParam op;
    op.path = inputPath();
    op.creation = ZEP_FILE_OPEN_EXISTING;
    op.access = ZEP_FILE_ACCESS_READ;
    return file->open(&op) == 0;
}

// A ring dump from `data`: its 16-byte header first. An instantaneous dump needs the whole ring
// (half a megabyte at least) before its tail; a shorter input is laid out as header, the slots it
// has, zeros up to the ring's size, and its last 32 bytes as the tail, so that short inputs reach
// the walks of a wrapped ring. Inputs that already have the size are taken as they are.
inline std::string ringDump(const Uint8* data, size_t size) {
    std::string bytes(reinterpret_cast<const char*>(data), size);
    RamboDumpHeader h;
    if (size < sizeof h + sizeof(RamboDumpTail)) return bytes;
    memcpy(&h, data, sizeof h);
    const size_t whole = sizeof h + h.bufferSize + sizeof(RamboDumpTail);
    if (h.dumpType != RAMBO_DUMP_INSTANT || h.bufferSize > RAMBO_MAX_BUFFER_SIZE ||
        h.bufferSize > (8u << 20) || size >= whole)
        return bytes;
    std::string out = bytes.substr(0, size - sizeof(RamboDumpTail));
    out.resize(sizeof h + h.bufferSize, 0);
    out.append(bytes, size - sizeof(RamboDumpTail), sizeof(RamboDumpTail));
    return out;
}

}  // namespace zepfuzz
