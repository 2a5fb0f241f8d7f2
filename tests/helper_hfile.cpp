// helper_hfile - the other process of the file lock tests.
//
//   helper_hfile try  PATH TYPE   lock byte 0 without waiting, print the result code, exit
//   helper_hfile wait PATH TYPE   the same, waiting for the lock
//
// TYPE is 1 (exclusive) or 2 (shared). The test reads the output through a pipe.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "zep.h"

int main(int argc, char** argv) {
    if (argc != 4) return 2;
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
