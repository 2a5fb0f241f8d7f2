// zepprimfile.h - the primitive file: the small file class of the diagnostics.
//
// It is what runs when something has already gone wrong (assertion reports, the allocator's
// findings, trap files), so it stands outside the frame: it doesn't trace, doesn't log, doesn't
// allocate (the format buffer of fwrite lies on the caller's stack) and takes no parameter
// object. Results are the platform's error numbers, 0 for success, not ECF codes; close, fwrite
// and the seeks report nothing at all: a diagnostic that can't be written is lost.
//
// On this platform the handle is the file descriptor itself, -1 (all ones) while no file is open,
// or after openConsole the pseudo handle of standard output, which close leaves open;
// every member is made of system calls alone, so an object can be used in a signal handler.
// Offsets are 32 bits wide: a file above 4 gigabytes can't be addressed through this class.
//
// Each use has an object of its own, on the stack of the thread that reports; there is no latch.
#ifndef ZEPPRIMFILE_H
#define ZEPPRIMFILE_H

#include "zeptypes.h"

// Flags of open: read only, write only (else both), and open-or-create (unless the exclusive
// bit 0x8 is given as well, which keeps the file's existence a condition).
#define ZEP_PRIMFILE_READ 0x1u
#define ZEP_PRIMFILE_WRITE 0x2u
#define ZEP_PRIMFILE_EXCL 0x8u
#define ZEP_PRIMFILE_CREATE 0x10u

class ZEP_EXPORT ZEPPrimitiveFileOp {
public:
    struct offsetType {
        Uint32 offset;
    };

    ZEPPrimitiveFileOp() : handle_(-1) {}

    // 0, or the platform's error number (2 for a missing file, 3 for a missing directory).
    Uint32 open(String path, Uint32 flags);
    // The process's standard output. Only this handle survives close: a file that open put on
    // descriptor 0, 1 or 2 (the process had closed them) is closed like any other.
    void openConsole();
    // Closes the file; the handle keeps its value, so isValid still says true afterwards. Let the
    // object go after close.
    void close();
    bool isValid() const { return handle_ != -1; }

    // One write call with no loop: a short count passes unseen. A length of 0 writes the string
    // in the buffer. With no file open nothing is written and the result is 0.
    Uint32 write(const void* buffer, Uint32 length);
    // Formats into a 2,048-byte buffer (a longer text is cut to 2,047 bytes) and writes it.
    void fwrite(String format, ...) __attribute__((format(printf, 2, 3)));
    // On success stores the bytes read and returns 0; with no file open, or on failure, stores 0
    // and returns the thread's last error as it stands.
    Uint32 read(Uint32 length, void* buffer, Uint32* bytesRead);
    // The low 32 bits of the size; a size that reads as all ones stores 0 and returns the last
    // error.
    Uint32 getSize(offsetType* size);
    offsetType getCurrentOffset() const;
    void seekToOffset(offsetType offset);
    void seekToEnd();

protected:
    void setFileHandle(int handle) { handle_ = handle; }
    int fileHandle() const { return handle_; }

private:
    int handle_;
};

#endif
