// zepprimfile.cpp - the primitive file on the descriptor calls of the OS layer.
#include "zepprimfile.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "zepos.h"

namespace fd = zepos::fd;

Uint32 ZEPPrimitiveFileOp::open(String path, Uint32 flags) {
    Uint32 access;
    if (flags & ZEP_PRIMFILE_READ)
        access = zepos::GENERIC_READ;
    else if (flags & ZEP_PRIMFILE_WRITE)
        access = zepos::GENERIC_WRITE;
    else
        access = zepos::GENERIC_READ | zepos::GENERIC_WRITE;
    const Uint32 disposition = (flags & ZEP_PRIMFILE_CREATE) && !(flags & ZEP_PRIMFILE_EXCL)
                                   ? zepos::OPEN_ALWAYS
                                   : zepos::OPEN_EXISTING;
    handle_ = fd::CreateFileA(path, access, zepos::FILE_SHARE_READ | zepos::FILE_SHARE_WRITE,
                              disposition, zepos::FILE_ATTRIBUTE_NORMAL);
    return handle_ == fd::INVALID_DESCRIPTOR ? zepos::GetLastError() : 0;
}

void ZEPPrimitiveFileOp::openConsole() {
    handle_ = fd::GetStdHandle(zepos::STD_OUTPUT_HANDLE);
}

void ZEPPrimitiveFileOp::close() {
    if (isValid()) fd::CloseHandle(handle_);
}

Uint32 ZEPPrimitiveFileOp::write(const void* buffer, Uint32 length) {
    if (!isValid()) return 0;
    if (length == 0) length = static_cast<Uint32>(strlen(static_cast<const char*>(buffer)));
    Uint32 written;
    return fd::WriteFile(handle_, buffer, length, &written) ? 0 : zepos::GetLastError();
}

void ZEPPrimitiveFileOp::fwrite(String format, ...) {
    char buffer[2048];
    memset(buffer, 0, sizeof buffer);
    va_list ap;
    va_start(ap, format);
    vsnprintf(buffer, sizeof buffer, format, ap);
    va_end(ap);
    write(buffer, 0);
}

Uint32 ZEPPrimitiveFileOp::read(Uint32 length, void* buffer, Uint32* bytesRead) {
    if (isValid() && fd::ReadFile(handle_, buffer, length, bytesRead)) return 0;
    *bytesRead = 0;
    return zepos::GetLastError();
}

Uint32 ZEPPrimitiveFileOp::getSize(offsetType* size) {
    Uint32 low = fd::GetFileSize(handle_, nullptr);
    if (low == zepos::INVALID_FILE_SIZE) {
        size->offset = 0;
        return zepos::GetLastError();
    }
    size->offset = low;
    return 0;
}

ZEPPrimitiveFileOp::offsetType ZEPPrimitiveFileOp::getCurrentOffset() const {
    return offsetType{fd::SetFilePointer(handle_, 0, nullptr, zepos::FILE_CURRENT)};
}

void ZEPPrimitiveFileOp::seekToOffset(offsetType offset) {
    fd::SetFilePointer(handle_, static_cast<Sint32>(offset.offset), nullptr, zepos::FILE_BEGIN);
}

void ZEPPrimitiveFileOp::seekToEnd() {
    fd::SetFilePointer(handle_, 0, nullptr, zepos::FILE_END);
}
