// helper_hfile - the other process of the file lock tests.
//
//   helper_hfile try    PATH TYPE   lock byte 0 without waiting, print the result code, exit
//   helper_hfile wait   PATH TYPE   the same, waiting for the lock
//   helper_hfile append PATH N      append N records the way the log does, print "done"
//
// TYPE is 1 (exclusive) or 2 (shared). The test reads the output through a pipe.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zep.h"

// The log's cycle for one record: open or create, lock, size, seek to the end, write, unlock,
// close. The record names the process, its number and the size seen under the lock, so a torn,
// lost or misplaced record shows in the file.
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
        if (file.open(&open) || file.lock(&lock) || file.getSize(&size) || file.seek(&end))
            return 5;
        char record[64];
        ZEPFileWriteParam write;
        write.buffer = record;
        write.length = static_cast<Uint32>(snprintf(record, sizeof record, "%08d %08d %012llu\n",
                                                    static_cast<int>(getpid()), i,
                                                    static_cast<unsigned long long>(size)));
        Uint32 written = 0;
        if (file.write(&write, &written) || file.unlock() || file.close()) return 6;
    }
    printf("done\n");
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    if (strcmp(argv[1], "append") == 0) return append(argv[2], atoi(argv[3]));
    ZEPFileOpenParam open;
    open.path = argv[2];
    open.creation = ZEP_FILE_OPEN_EXISTING;
    open.access = ZEP_FILE_ACCESS_READ_WRITE;
    ZEPHFile file;
    if (file.open(&open) != 0) return 3;
    const bool wait = strcmp(argv[1], "wait") == 0;
    ZEPFileLockParam lock(static_cast<Uint32>(atoi(argv[3])),
                          wait ? ZEP_FILE_LOCK_WAIT : ZEP_FILE_LOCK_NO_WAIT);
    printf("%08X\n", file.lock(&lock));
    return file.close() == 0 ? 0 : 4;  // closing lets go of the lock
}
