// helper_hfile - the other process of the file lock tests.
//
//   helper_hfile try  PATH TYPE   lock byte 0 without waiting, print the result code, exit
//   helper_hfile wait PATH TYPE   lock waiting, print "got", unlock, exit
//   helper_hfile hold PATH TYPE   lock waiting, print "held", then sleep until killed
//
// TYPE is 1 (exclusive) or 2 (shared). The file is opened for reading and writing. Every line is
// flushed at once: the test reads them through a pipe while this process lives.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include "zep.h"

int main(int argc, char** argv) {
    if (argc != 4) return 2;
    const char* mode = argv[1];
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
