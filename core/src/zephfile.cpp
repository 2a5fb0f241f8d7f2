// zephfile.cpp - ZEPHFile, the handle of an open file.
//
// The log writes every record through this class (open, lock, size, write, unlock, close), so
// the paths stay free of allocation beyond the OS layer's handle record, and of any platform call
// the steps don't name. Failures log "the object" as the three words of the ZEPHFile: its
// handles are what explains a failed platform call. The items of a zepLogSysRC record are
// numbered in the mask in the order they are given.
#include "zephfile.h"

#include "zepframe.h"

namespace {

using zepos::INVALID_HANDLE_VALUE;

ZepLogItem logPointer(void* const* p) {
    return ZepLogItem{p, sizeof(void*), ZEP_LOGDATA_HEX};
}
template <class T>
ZepTrcBlock trcValue(const T* v) {
    return ZepTrcBlock{v, static_cast<Uint32>(sizeof(T))};
}

// GetFileSize and SetFilePointer fail with all ones and a last error; all ones with a last error
// of 0 is a position or size whose low word happens to be all ones.
bool failedWithAllOnes(Uint32 result, Uint32* osError) {
    *osError = zepos::GetLastError();
    return result == 0xFFFFFFFFu && *osError != 0;
}

// The code and level that the error map gives, for the steps that log it with zepLog.
Uint32 mapped(const ZepFrame& f, Uint16 probe, Uint32 calledId, Uint32 osError, Uint32* level) {
    *level = ZEP_LOG_INFO;
    return zepErrorMapSystem(f.functionId(), probe, calledId, osError, level);
}

}  // namespace

Uint32 ZEPHFile::open(const ZEPFileOpenParam* param) {
    ZepFrame f(ZEPFN_ZEPHFile_open);
    f.traceData(200, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    f.traceData(220, ZepTrcStr{param->path});

    Uint32 disposition;
    switch (param->creation) {
        case ZEP_FILE_OPEN_EXISTING:
            disposition = zepos::OPEN_EXISTING;
            break;
        case ZEP_FILE_OPEN_OR_CREATE:
            disposition = zepos::OPEN_ALWAYS;
            break;
        case ZEP_FILE_TRUNCATE_EXISTING:
            disposition = zepos::TRUNCATE_EXISTING;
            break;
        case ZEP_FILE_CREATE_NEW:
            disposition = zepos::CREATE_NEW;
            break;
        case ZEP_FILE_CREATE_OR_REPLACE:
            disposition = zepos::CREATE_ALWAYS;
            break;
        default:
            f.fail(ECF_INVALID_PARAMETER, 230, ZEP_LOG_INFO);
            return f.exit();
    }
    Uint32 access;
    switch (param->access) {
        case ZEP_FILE_ACCESS_READ:
            access = zepos::GENERIC_READ;
            break;
        case ZEP_FILE_ACCESS_WRITE:
            access = zepos::GENERIC_WRITE;
            break;
        case ZEP_FILE_ACCESS_READ_WRITE:
            access = zepos::GENERIC_READ | zepos::GENERIC_WRITE;
            break;
        default:
            f.fail(ECF_INVALID_PARAMETER, 240, ZEP_LOG_INFO);
            return f.exit();
    }
    if (param->creation == ZEP_FILE_TRUNCATE_EXISTING && param->access == ZEP_FILE_ACCESS_READ) {
        f.fail(ECF_INVALID_PARAMETER, 250, ZEP_LOG_INFO);
        return f.exit();
    }

    // The common refusals are decided here, so that they have these codes whatever the
    // platform would say. Only these two creations refuse on the answer; for the others the open
    // itself tells whether the file was there (last error 183), and the log, which opens or
    // creates its file for every record, is spared a call.
    if (param->creation == ZEP_FILE_CREATE_NEW || param->creation == ZEP_FILE_OPEN_EXISTING) {
        const bool exists =
            zepos::GetFileAttributesA(param->path) != zepos::INVALID_FILE_ATTRIBUTES;
        if (exists && param->creation == ZEP_FILE_CREATE_NEW) {
            f.fail(ECF_FILE_EXISTS, 260, ZEP_LOG_INFO, ZepLogStr(param->path));
            return f.exit();
        }
        if (!exists && param->creation == ZEP_FILE_OPEN_EXISTING) {
            f.fail(ECF_FILE_DOESNT_EXIST, 270, ZEP_LOG_INFO, ZepLogStr(param->path));
            return f.exit();
        }
    }

    Uint32 attributes = zepos::FILE_ATTRIBUTE_NORMAL;
    if (param->options & ZEP_FILE_OPTION_WRITE_THROUGH)
        attributes |= zepos::FILE_FLAG_WRITE_THROUGH;
    if (param->options & ZEP_FILE_OPTION_DELETE_ON_CLOSE)
        attributes |= zepos::FILE_FLAG_DELETE_ON_CLOSE;

    file_ = mapping_ = INVALID_HANDLE_VALUE;
    view_ = nullptr;
    void* h =
        zepos::CreateFileA(param->path, access, zepos::FILE_SHARE_READ | zepos::FILE_SHARE_WRITE,
                           nullptr, disposition, attributes, nullptr);
    if (h == INVALID_HANDLE_VALUE) {
        f.failMapped(280, SYSFN_CreateFile, zepos::GetLastError(), ZEP_LOG_ARGS(0xF),
                     ZepLogStr(param->path), ZepLogUint(&access), ZepLogUint(&disposition),
                     ZepLogUint(&attributes));
        return f.exit();
    }
    file_ = h;
    return f.exit();
}

Uint32 ZEPHFile::close() {
    ZepFrame f(ZEPFN_ZEPHFile_close);
    if (!zepos::CloseHandle(file_)) {
        f.failMapped(20, SYSFN_CloseHandle, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    file_ = mapping_ = INVALID_HANDLE_VALUE;
    view_ = nullptr;
    return f.exit();
}

Uint32 ZEPHFile::getSize(Uint64* size) {
    ZepFrame f(ZEPFN_ZEPHFile_getSize);
    Uint32 high = 0, osError;
    const Uint32 low = zepos::GetFileSize(file_, &high);
    if (failedWithAllOnes(low, &osError)) {
        f.failMapped(20, SYSFN_GetFileSize, osError, ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    *size = (static_cast<Uint64>(high) << 32) | low;
    f.traceData(30, trcValue(size));
    return f.exit();
}

Uint32 ZEPHFile::seek(const ZEPFileSeekParam* param, Uint64* newPosition) {
    ZepFrame f(ZEPFN_ZEPHFile_seek);
    f.traceData(100, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();

    Uint32 osError, level;
    Sint64 base = 0;
    if (param->origin == ZEP_FILE_SEEK_CURRENT || param->origin == ZEP_FILE_SEEK_END) {
        Sint32 high = 0;
        const Uint32 low = zepos::SetFilePointer(
            file_, 0, &high,
            param->origin == ZEP_FILE_SEEK_CURRENT ? zepos::FILE_CURRENT : zepos::FILE_END);
        if (failedWithAllOnes(low, &osError)) {
            const Uint32 rc = mapped(f, 130, SYSFN_SetFilePointer, osError, &level);
            f.fail(rc, 130, level, ZepLogHex(this, sizeof *this));
            return f.exit();
        }
        base = static_cast<Sint64>((static_cast<Uint64>(static_cast<Uint32>(high)) << 32) | low);
    } else if (param->origin != ZEP_FILE_SEEK_START) {
        f.fail(ECF_INVALID_PARAMETER, 120, ZEP_LOG_INFO, ZepLogUint(&param->origin));
        return f.exit();
    }

    // Before the start lands at the start; past the largest position is beyond any end.
    Sint64 position;
    if (__builtin_add_overflow(base, param->offset, &position))
        position = param->offset < 0 ? 0 : INT64_MAX;
    if (position < 0) position = 0;

    Uint32 sizeHigh = 0;
    const Uint32 sizeLow = zepos::GetFileSize(file_, &sizeHigh);
    if (failedWithAllOnes(sizeLow, &osError)) {
        f.failMapped(140, SYSFN_GetFileSize, osError, ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    Sint64 size = static_cast<Sint64>((static_cast<Uint64>(sizeHigh) << 32) | sizeLow);
    if (position > size) {
        f.fail(ECF_FILE_SEEK_BEYOND_EOF, 150, ZEP_LOG_INFO, ZepLogSint64(&position),
               ZepLogSint64(&size));
        return f.exit();
    }

    Sint32 high = static_cast<Sint32>(static_cast<Uint64>(position) >> 32);
    const Uint32 low =
        zepos::SetFilePointer(file_, static_cast<Sint32>(position), &high, zepos::FILE_BEGIN);
    if (failedWithAllOnes(low, &osError)) {
        const Uint32 rc = mapped(f, 160, SYSFN_SetFilePointer, osError, &level);
        f.fail(rc, 160, level, ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    const Uint64 reported = (static_cast<Uint64>(static_cast<Uint32>(high)) << 32) | low;
    if (newPosition) *newPosition = reported;
    f.traceData(170, trcValue(&reported));
    return f.exit();
}

Uint32 ZEPHFile::read(const ZEPFileReadParam* param, void* buffer, Uint32* bytesRead) {
    ZepFrame f(ZEPFN_ZEPHFile_read);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    *bytesRead = 0;
    Uint32 count = 0;
    if (!zepos::ReadFile(file_, buffer, param->length, &count, nullptr)) {
        f.failMapped(50, SYSFN_ReadFile, zepos::GetLastError(), ZEP_LOG_ARGS(3),
                     ZepLogHex(this, sizeof *this), ZepLogUint(&param->length));
        return f.exit();
    }
    *bytesRead = count;
    if (count != param->length) {
        // End of file: an expected result, traced but neither logged nor an error record.
        f.traceData(40, trcValue(&param->length), trcValue(&count));
        f.setQuietResult(ECF_FILE_EOF);
        return f.exit();
    }
    return f.exit();
}

Uint32 ZEPHFile::write(const ZEPFileWriteParam* param, Uint32* bytesWritten) {
    ZepFrame f(ZEPFN_ZEPHFile_write);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    *bytesWritten = 0;
    f.traceData(30, trcValue(&param->buffer), trcValue(&param->length), trcValue(&bytesWritten));

    // The platform may take less than asked; go on from where it stopped until it fails, takes
    // nothing, or has it all. The bytes of a failed call still count.
    const char* at = static_cast<const char*>(param->buffer);
    Uint32 total = 0, left = param->length, osError = 0;
    while (left != 0) {
        Uint32 n = 0;
        const bool ok = zepos::WriteFile(file_, at, left, &n, nullptr);
        if (!ok) osError = zepos::GetLastError();
        total += n;
        left -= n;
        at += n;
        if (!ok || n == 0) break;
    }
    if (osError != 0) {
        f.failMapped(40, SYSFN_WriteFile, osError, ZEP_LOG_ARGS(3), ZepLogHex(this, sizeof *this),
                     ZepLogUint(&param->length));
        return f.exit();
    }
    *bytesWritten = total;
    f.traceData(50, trcValue(&total));
    if (total != param->length)
        f.fail(ECF_FILE_INCOMPLETE_WRITE, 60, ZEP_LOG_INFO, ZepLogUint(&param->length),
               ZepLogUint(&total));
    return f.exit();
}

Uint32 ZEPHFile::setSize(const ZEPFileSetSizeParam* param) {
    ZepFrame f(ZEPFN_ZEPHFile_setSize);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    if (param->reserved != 0) {
        f.fail(ECF_INVALID_PARAMETER, 30, ZEP_LOG_INFO, ZepLogUint(&param->reserved));
        return f.exit();
    }

    Uint32 osError;
    Sint32 posHigh = 0;
    const Uint32 posLow = zepos::SetFilePointer(file_, 0, &posHigh, zepos::FILE_CURRENT);
    if (failedWithAllOnes(posLow, &osError)) {
        f.failMapped(100, SYSFN_SetFilePointer, osError, ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    const Uint64 position = (static_cast<Uint64>(static_cast<Uint32>(posHigh)) << 32) | posLow;

    Uint32 sizeHigh = 0;
    const Uint32 sizeLow = zepos::GetFileSize(file_, &sizeHigh);
    if (failedWithAllOnes(sizeLow, &osError)) {
        f.failMapped(110, SYSFN_GetFileSize, osError, ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    if (((static_cast<Uint64>(sizeHigh) << 32) | sizeLow) == param->size) {
        f.traceError(120);  // rc is still 0
        return f.exit();
    }
    f.traceData(130, trcValue(&position), trcValue(&param->size));

    Sint32 high = static_cast<Sint32>(param->size >> 32);
    if (failedWithAllOnes(zepos::SetFilePointer(file_, static_cast<Sint32>(param->size), &high,
                                                zepos::FILE_BEGIN),
                          &osError)) {
        f.failMapped(140, SYSFN_SetFilePointer, osError, ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    if (!zepos::SetEndOfFile(file_)) {
        f.failMapped(150, SYSFN_SetEndOfFile, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
        return f.exit();
    }
    // A pointer within the new size goes back; one beyond it stays at the new end.
    if (position < param->size) {
        high = static_cast<Sint32>(position >> 32);
        if (failedWithAllOnes(zepos::SetFilePointer(file_, static_cast<Sint32>(position), &high,
                                                    zepos::FILE_BEGIN),
                              &osError)) {
            f.failMapped(160, SYSFN_SetFilePointer, osError, ZEP_LOG_ARGS(1),
                         ZepLogHex(this, sizeof *this));
            return f.exit();
        }
    }
    return f.exit();
}

Uint32 ZEPHFile::sync() {
    ZepFrame f(ZEPFN_ZEPHFile_sync);
    if (!zepos::FlushFileBuffers(file_))
        f.failMapped(20, SYSFN_FlushFileBuffers, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogHex(this, sizeof *this));
    return f.exit();
}

Uint32 ZEPHFile::lock(const ZEPFileLockParam* param) {
    ZepFrame f(ZEPFN_ZEPHFile_lock);
    f.traceData(100, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    f.traceData(120, ZepTrcObj(param));

    Uint32 flags;
    switch (param->type) {
        case ZEP_FILE_LOCK_EXCLUSIVE:
            flags = zepos::LOCKFILE_EXCLUSIVE_LOCK;
            break;
        case ZEP_FILE_LOCK_SHARED:
            flags = 0;
            break;
        default:
            f.fail(ECF_INVALID_PARAMETER, 130, ZEP_LOG_INFO, ZepLogUint(&param->type));
            return f.exit();
    }
    if (param->wait != ZEP_FILE_LOCK_WAIT && param->wait != ZEP_FILE_LOCK_NO_WAIT) {
        f.fail(ECF_INVALID_PARAMETER, 140, ZEP_LOG_INFO, ZepLogUint(&param->wait));
        return f.exit();
    }
    // The platform never blocks us: waiting is a poll, so a holder that dies or forgets never
    // leaves a thread stuck inside the kernel with no way to give up.
    flags |= zepos::LOCKFILE_FAIL_IMMEDIATELY;

    for (;;) {
        zepos::OVERLAPPED overlapped = {};
        if (zepos::LockFileEx(file_, flags, 0, 1, 0, &overlapped)) return f.exit();
        const Uint32 osError = zepos::GetLastError();
        if (osError != zepos::ERROR_LOCK_VIOLATION) {
            f.failMapped(160, SYSFN_LockFileEx, osError, ZEP_LOG_ARGS(3),
                         ZepLogHex(this, sizeof *this), ZepLogUint(&flags));
            return f.exit();
        }
        if (param->wait == ZEP_FILE_LOCK_NO_WAIT) {
            f.setQuietResult(ECF_FILE_LOCK);
            return f.exit();
        }
        zepos::Sleep(100);
    }
}

Uint32 ZEPHFile::unlock() {
    ZepFrame f(ZEPFN_ZEPHFile_unlock);
    zepos::OVERLAPPED overlapped = {};
    if (!zepos::UnlockFileEx(file_, 0, 1, 0, &overlapped)) {
        const Uint32 osError = zepos::GetLastError();
        if (osError != zepos::ERROR_NOT_LOCKED)
            f.failMapped(20, SYSFN_UnlockFileEx, osError, ZEP_LOG_ARGS(1),
                         ZepLogHex(this, sizeof *this));
    }
    return f.exit();
}

Uint32 ZEPHFile::map(const ZEPFileMapParam* param, void** address) {
    ZepFrame f(ZEPFN_ZEPHFile_map);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();

    Uint32 pageProtection, viewAccess;
    switch (param->protection) {
        case ZEP_FILE_MAP_READ:
            pageProtection = zepos::PAGE_READONLY, viewAccess = zepos::FILE_MAP_READ;
            break;
        case ZEP_FILE_MAP_COPY_ON_WRITE:
            pageProtection = zepos::PAGE_WRITECOPY, viewAccess = zepos::FILE_MAP_COPY;
            break;
        case ZEP_FILE_MAP_READ_WRITE:
            pageProtection = zepos::PAGE_READWRITE, viewAccess = zepos::FILE_MAP_WRITE;
            break;
        default:
            f.fail(ECF_INVALID_PARAMETER, 60, ZEP_LOG_INFO, ZepLogUint(&param->protection));
            return f.exit();
    }

    mapping_ = zepos::CreateFileMappingA(file_, nullptr, pageProtection, 0, 0, nullptr);
    if (mapping_ == nullptr) {
        mapping_ = INVALID_HANDLE_VALUE;
        f.failMapped(70, SYSFN_CreateFileMapping, zepos::GetLastError(), ZEP_LOG_ARGS(3),
                     ZepLogHex(this, sizeof *this), ZepLogUint(&param->protection));
        return f.exit();
    }

    void* view = zepos::MapViewOfFileEx(mapping_, viewAccess, 0, 0, param->length,
                                        address ? *address : nullptr);
    if (address) *address = view;
    if (view == nullptr) {
        const Uint32 osError = zepos::GetLastError();
        zepos::CloseHandle(mapping_);
        mapping_ = INVALID_HANDLE_VALUE;
        f.failMapped(80, SYSFN_MapViewOfFileEx, osError, ZEP_LOG_ARGS(7), logPointer(&mapping_),
                     ZepLogUint(&viewAccess), ZepLogUint(&param->length));
        return f.exit();
    }
    view_ = view;
    f.traceData(90, trcValue(&view_));
    return f.exit();
}

Uint32 ZEPHFile::unmap(void* address) {
    ZepFrame f(ZEPFN_ZEPHFile_unmap);
    if (address == nullptr) address = view_;
    f.traceData(10, trcValue(&address));
    if (!zepos::UnmapViewOfFile(address)) {
        f.failMapped(30, SYSFN_UnmapViewOfFile, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logPointer(&address));
        return f.exit();
    }
    if (!zepos::CloseHandle(mapping_)) {
        f.failMapped(40, SYSFN_CloseHandle, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     logPointer(&mapping_));
        return f.exit();
    }
    mapping_ = INVALID_HANDLE_VALUE;
    view_ = nullptr;
    return f.exit();
}
