#include <stdio.h>
#include <string.h>

#include <zep.h>

int main() {
    const char* d = ecfErrorGetDescription(ECF_FILE_DOESNT_EXIST);
    if (d == nullptr || strcmp(d, "File doesn't exist") != 0) return 1;
    if (zepFileRename("/nonexistent/a", "/nonexistent/b") != ECF_FILE_DOESNT_EXIST) return 2;
    printf("%s\n", d);
    return 0;
}
