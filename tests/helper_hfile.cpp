// helper_hfile - the other process of the file lock tests.
//
//   helper_hfile try  PATH TYPE   lock byte 0 without waiting, print the result code, exit
//   helper_hfile wait PATH TYPE   lock waiting, print "got", unlock, exit
//   helper_hfile hold PATH TYPE   lock waiting, print "held", then sleep until killed
//   helper_hfile append PATH N    append N records the way the log does, print "done"
//
// TYPE is 1 (exclusive) or 2 (shared). The file is opened for reading and writing. Every line is
// flushed at once: the test reads them through a pipe while this process lives.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zep.h"

// One record per cycle, as the log's file target writes: open or create, lock, size, seek to
// the end, write, unlock, close. The record names the process and its number, and a torn or
// lost record shows in the file.
int append(const char* path, int count) {
    ZEPFileOpenParam open;
    open.path = path;
    open.creation = ZEP_FILE_OPEN_OR_CREATE;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    ZEPFileLockParam lock(ZEP_FILE_LOCK_EXCLUSIVE, ZEP_FILE_LOCK_WAIT);
    ZEPFileSeekParam end;
    end.origin = ZEP_FILE_SEEK_END;
    for (int i = 0; i < count; ++i) {
        ZEPHFile file;
        Uint64 size = 0;
        if (file.open(&open) != 0 || file.lock(&lock) != 0 || file.getSize(&size) != 0 ||
            file.seek(&end) != 0)
            return 5;
        char record[64];
        ZEPFileWriteParam write;
        write.buffer = record;
        write.length = static_cast<Uint32>(snprintf(record, sizeof record, "%08d %08d %012llu\n",
                                                    static_cast<int>(getpid()), i,
                                                    static_cast<unsigned long long>(size)));
        Uint32 written = 0;
        if (file.write(&write, &written) != 0 || file.unlock() != 0 || file.close() != 0) return 6;
    }
    printf("done\n");
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const char* mode = argv[1];
    if (strcmp(mode, "append") == 0) return append(argv[2], atoi(argv[3]));
    ZEPFileOpenParam open;
    open.path = argv[2];
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    ZEPHFile file;
    Uint32 rc = file.open(&open);
    if (rc != 0) {
        printf("open %08X\n", rc);
        return 3;
    }
    const Uint32 type = static_cast<Uint32>(atoi(argv[3]));
    if (strcmp(mode, "try") == 0) {
        ZEPFileLockParam lock(type, ZEP_FILE_LOCK_NO_WAIT);
        printf("%08X\n", file.lock(&lock));
        fflush(stdout);
        file.unlock();
        file.close();
        return 0;
    }
    ZEPFileLockParam lock(type, ZEP_FILE_LOCK_WAIT);
    rc = file.lock(&lock);
    if (rc != 0) {
        printf("lock %08X\n", rc);
        return 4;
    }
    if (strcmp(mode, "wait") == 0) {
        printf("got\n");
        fflush(stdout);
        file.unlock();
        file.close();
        return 0;
    }
    printf("held\n");
    fflush(stdout);
    for (;;) pause();
}
