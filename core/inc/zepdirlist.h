// zepdirlist.h - ZEPDirectoryListing: one directory, or one "*"/"?" pattern, read whole at begin()
// and handed out from memory.
//
// Two views of one snapshot: a forward cursor (getNext, rewind) and a flat block of every name,
// each with its NUL and one more NUL at the end. Nothing stays open between calls, and entries
// that come or go after begin() don't change the listing. The order is the directory's own.
//
// An entry enters when the type mask has a bit in common with its 16-bit mode (0x8000 regular
// files, 0x4000 directories, 0xC000 both; permission bits match too, should a caller set them).
// "." and ".." are entries like any other directory.
//
// States: idle (after construction or end) and listed (after a begin that returned 0). begin
// when listed and end when idle give ECF_INVALID_INVOCATION_SEQUENCE. A begin that fails midway
// may keep the names it collected; the destructor frees whatever is held.
#ifndef ZEPDIRLIST_H
#define ZEPDIRLIST_H

#include "zeptypes.h"

struct ZEPDirectoryListingParam {
    Uint32 version = ZEP_VERSION_WORD;
    const char* path = nullptr;  // a directory, or a pattern whose last component has "*" or "?"
    Uint32 typeMask = 0;         // compared with each entry's mode
    Uint32 reserved = 0;         // not read
};

class ZEP_EXPORT ZEPDirectoryListing {
public:
    ZEPDirectoryListing();
    ~ZEPDirectoryListing();
    ZEPDirectoryListing(const ZEPDirectoryListing&) = delete;
    ZEPDirectoryListing& operator=(const ZEPDirectoryListing&) = delete;

    Uint32 begin(const ZEPDirectoryListingParam* param);

    // The next name (valid until end), null after the last and on every call after that.
    const char* getNext();
    // The same, with the entry's type bits as the listing saw them (0xF000 of its mode).
    const char* getNext(Uint16* typeBits);
    void rewind();  // the next getNext gives the first name again
    const char* getFileList() const { return m_pFileList; }
    Uint32 getNumberOfFiles() const { return m_iNumberOfFiles; }
    Uint32 getFileListSize() const { return m_iFileListSize; }
    void dumpFileList() const;  // to standard output
    Uint32 end();

protected:
    void reset();  // every field to its idle value; frees nothing

private:
    friend struct ZepListingAccess;
    friend Uint32 zepListingBeginAt(ZEPDirectoryListing*, void*, Uint32, const char*, Uint32);
    struct Node {
        char* name;
        Node* next;
        Uint16 typeBits;
    };
    Uint32 m_iNumberOfFiles;
    Node* m_pHead;
    char* m_pFileList;
    Uint32 m_iFileListSize;
    Node* m_pCursor;
    Uint8 m_bAtStart;
    Uint8 m_bBegun;
};

#endif
