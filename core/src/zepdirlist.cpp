// zepdirlist.cpp - ZEPDirectoryListing.
//
// begin() reads the whole search into a list of nodes from the library's allocator (one for the
// node, one for the name) and then one flat block of the right size; the search handle lives only
// inside begin(). A search that fails midway is closed on that road too: nothing stays open.
// Memory running out stops begin() with the allocator's code, logged at 110 (node), 120 (name)
// or 130 (flat block) naming zepMemAlloc.
#include "zepdirlist.h"

#include <stdio.h>
#include <string.h>

#include "zepfile.h"
#include "zepframe.h"
#include "zeplistat.h"
#include "zepmemory.h"
#include "zepnumconv.h"

namespace {
constexpr char kSep = ZEP_PATH_SEPARATOR;
}

struct ZepListingAccess {
    // Collects the search's entries: `typeOf` gives each one's mode (0 drops it).
    template <class TypeOf>
    static Uint32 collect(ZEPDirectoryListing& l, ZepFrame& f, zepos::HANDLE find,
                          zepos::WIN32_FIND_DATAA& data, Uint32 mask, TypeOf typeOf) {
        ZEPDirectoryListing::Node* tail = l.m_pHead;
        while (tail != nullptr && tail->next != nullptr) tail = tail->next;
        do {
            Uint32 mode = typeOf(data);
            if ((mode & mask) == 0) continue;
            ZEPDirectoryListing::Node* node = nullptr;
            Uint32 rc = zepMemAlloc(&node, nullptr, sizeof *node, ZEP_MEM_ZERO);
            if (rc != 0) {
                zepos::FindClose(find);
                return f.failNested(rc, 110, ZEP_LOG_ERROR, ZEPFN_zepMemAlloc, rc, 0);
            }
            Uint32 length = static_cast<Uint32>(strlen(data.cFileName));
            rc = zepMemAlloc(&node->name, nullptr, length + 1, ZEP_MEM_ZERO);
            if (rc != 0) {
                zepMemFree(&node, nullptr, 0);
                zepos::FindClose(find);
                return f.failNested(rc, 120, ZEP_LOG_ERROR, ZEPFN_zepMemAlloc, rc, 0);
            }
            memcpy(node->name, data.cFileName, length + 1);
            node->typeBits = static_cast<Uint16>(mode & 0xF000u);
            if (tail == nullptr)
                l.m_pHead = node;
            else
                tail->next = node;
            tail = node;
            ++l.m_iNumberOfFiles;
            l.m_iFileListSize += length + 1;
        } while (zepos::FindNextFileA(find, &data));
        l.m_iFileListSize += 1;
        Uint32 err = zepos::GetLastError();
        if (err != zepos::ERROR_NO_MORE_FILES) {
            f.failMapped(90, SYSFN_FindNextFile, err, ZEP_LOG_ARGS(1),
                         ZepLogHex(&find, sizeof find));
            zepos::FindClose(find);
            return f.rc();
        }
        if (!zepos::FindClose(find))
            return f.failMapped(100, SYSFN_FindClose, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                                ZepLogHex(&find, sizeof find));
        Uint32 rc = zepMemAlloc(&l.m_pFileList, nullptr, l.m_iFileListSize, ZEP_MEM_ZERO);
        if (rc != 0) return f.failNested(rc, 130, ZEP_LOG_ERROR, ZEPFN_zepMemAlloc, rc, 0);
        char* out = l.m_pFileList;
        for (ZEPDirectoryListing::Node* n = l.m_pHead; n != nullptr; n = n->next) {
            size_t len = strlen(n->name) + 1;
            memcpy(out, n->name, len);
            out += len;
        }
        l.m_bBegun = 1;
        return 0;
    }
};

ZEPDirectoryListing::ZEPDirectoryListing() {
    reset();
}

ZEPDirectoryListing::~ZEPDirectoryListing() {
    // Forced, so that the names a failed begin() collected are freed too.
    m_bBegun = 1;
    end();
}

void ZEPDirectoryListing::reset() {
    m_iNumberOfFiles = 0;
    m_pHead = nullptr;
    m_pFileList = nullptr;
    m_iFileListSize = 0;
    m_pCursor = nullptr;
    m_bAtStart = 1;
    m_bBegun = 0;
}

Uint32 ZEPDirectoryListing::begin(const ZEPDirectoryListingParam* param) {
    ZepFrame f(ZEPFN_ZEPDirectoryListing_begin);
    f.traceData(10, ZepTrcObj(param));
    if (f.refuseParam(param)) return f.rc();
    const char* path = param->path != nullptr ? param->path : "";
    f.traceData(30, ZepTrcStr{path});
    if (m_bBegun) {
        f.fail(ECF_INVALID_INVOCATION_SEQUENCE, 40, ZEP_LOG_INFO);
        return f.exit();
    }

    // A pattern when the last component has a wildcard; else the directory's every entry.
    char base[260] = "";
    if (*path != 0) zepBaseName(path, base, sizeof base);
    char search[261];
    char dirPart[260];
    if (strpbrk(base, "*?") != nullptr) {
        zepSnprintf(search, sizeof search, "%s", path);
        dirPart[0] = 0;
        zepDirectoryName(path, dirPart, sizeof dirPart);
    } else {
        zepSnprintf(dirPart, sizeof dirPart, "%s", path);
        size_t n = strlen(dirPart);
        if (n > 0 && dirPart[n - 1] == '/') dirPart[n - 1] = 0;
        zepSnprintf(search, sizeof search, "%s%c*", dirPart, kSep);
    }

    zepos::WIN32_FIND_DATAA data;
    zepos::HANDLE find = zepos::FindFirstFileA(search, &data);
    if (find == zepos::INVALID_HANDLE_VALUE) {
        f.failMapped(80, SYSFN_FindFirstFile, zepos::GetLastError(), ZEP_LOG_ARGS(1),
                     ZepLogStr(search));
        return f.exit();
    }
    // The dirPart and the name together: at most 259 bytes and the NUL, as every joined path.
    size_t dn = strlen(dirPart);
    char full[260];
    memcpy(full, dirPart, dn);
    full[dn] = kSep;
    ZepListingAccess::collect(*this, f, find, data, param->typeMask,
                              [&](const zepos::WIN32_FIND_DATAA& d) -> Uint32 {
                                  size_t nn = strlen(d.cFileName);
                                  if (dn + 1 + nn >= sizeof full) nn = sizeof full - dn - 2;
                                  memcpy(full + dn + 1, d.cFileName, nn);
                                  full[dn + 1 + nn] = 0;
                                  zepos::STATI64 st;
                                  return zepos::_stati64(full, &st) == 0 ? st.mode : 0u;
                              });
    return f.exit();
}

Uint32 zepListingBeginAt(ZEPDirectoryListing* listing, void* directory, Uint32 openError,
                         const char* path, Uint32 typeMask) {
    ZepFrame f(ZEPFN_ZEPDirectoryListing_begin);
    f.traceData(30, ZepTrcStr{path});
    if (listing->m_bBegun) {
        f.fail(ECF_INVALID_INVOCATION_SEQUENCE, 40, ZEP_LOG_INFO);
        return f.exit();
    }
    zepos::WIN32_FIND_DATAA data;
    zepos::HANDLE find = zepos::INVALID_HANDLE_VALUE;
    if (directory != zepos::INVALID_HANDLE_VALUE) {
        find = zepos::FindFirstFileAt(directory, "*", &data);
        if (find == zepos::INVALID_HANDLE_VALUE) openError = zepos::GetLastError();
    }
    if (find == zepos::INVALID_HANDLE_VALUE) {
        f.failMapped(80, SYSFN_FindFirstFile, openError, ZEP_LOG_ARGS(1), ZepLogStr(path));
        return f.exit();
    }
    // The entry's own type, a link as a link; the directory entry says it without a query on
    // most file systems.
    ZepListingAccess::collect(
        *listing, f, find, data, typeMask, [&](const zepos::WIN32_FIND_DATAA& d) -> Uint32 {
            if (d.typeBits != 0) return d.typeBits;
            zepos::STATI64 st;
            return zepos::_lstati64At(directory, d.cFileName, &st) == 0 ? st.mode : 0u;
        });
    return f.exit();
}

const char* ZEPDirectoryListing::getNext() {
    return getNext(nullptr);
}

const char* ZEPDirectoryListing::getNext(Uint16* typeBits) {
    if (m_bAtStart) {
        m_bAtStart = 0;
        m_pCursor = m_pHead;
    }
    if (m_pCursor == nullptr) return nullptr;
    const Node* n = m_pCursor;
    m_pCursor = n->next;
    if (typeBits != nullptr) *typeBits = n->typeBits;
    return n->name;
}

void ZEPDirectoryListing::rewind() {
    m_bAtStart = 1;
}

void ZEPDirectoryListing::dumpFileList() const {
    printf(
        "========================================= \r\nm_iFileListSize = %u\r\n"
        "There is/are %u file(s) \r\n========> File List Dump Start <========= \r\n",
        m_iFileListSize, m_iNumberOfFiles);
    Uint32 i = 0;
    for (const Node* n = m_pHead; n != nullptr; n = n->next)
        printf("File %u : |%s|\r\n", ++i, n->name);
    printf("========>  File List Dump End  <========= \r\n");
}

Uint32 ZEPDirectoryListing::end() {
    ZepFrame f(ZEPFN_ZEPDirectoryListing_end);
    if (!m_bBegun) {
        f.fail(ECF_INVALID_INVOCATION_SEQUENCE, 10, ZEP_LOG_INFO);
        return f.exit();
    }
    while (m_pHead != nullptr) {
        Node* n = m_pHead;
        Uint32 rc = zepMemFree(&n->name, nullptr, 0);
        if (rc != 0) {
            f.failNested(rc, 20, ZEP_LOG_ERROR, ZEPFN_zepMemFree, rc, 0);
            return f.exit();
        }
        m_pHead = n->next;
        rc = zepMemFree(&n, nullptr, 0);
        if (rc != 0) {
            f.failNested(rc, 30, ZEP_LOG_ERROR, ZEPFN_zepMemFree, rc, 0);
            return f.exit();
        }
    }
    if (m_pFileList != nullptr) {
        Uint32 rc = zepMemFree(&m_pFileList, nullptr, 0);
        if (rc != 0) {
            f.failNested(rc, 40, ZEP_LOG_ERROR, ZEPFN_zepMemFree, rc, 0);
            return f.exit();
        }
    }
    reset();
    return f.exit();
}
