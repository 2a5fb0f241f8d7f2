// helper_log <file> <count>: appends <count> records to <file> through the default facility.
#include <stdio.h>
#include <stdlib.h>

#include "zep.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    ZEPLogFacilityParam p;
    snprintf(p.path, sizeof p.path, "%s", argv[1]);
    snprintf(p.name, sizeof p.name, "helper_log");
    p.level = ZEP_LOG_INFO;
    p.target = ZEP_LOG_TARGET_FILE;
    p.permissions = 0644;
    if (zepLogFacOpen(&p, nullptr) != 0) return 3;
    int n = atoi(argv[2]);
    for (Uint32 i = 0; i < static_cast<Uint32>(n); ++i) {
        char text[64];
        snprintf(text, sizeof text, "record %u of process %u", i, zepProcessID());
        if (zepLog(nullptr, ZEPFN_zepFileRename, ECF_FAILED, 10, ZEP_LOG_INFO, 2, &i, 4u,
                   ZEP_LOGDATA_UINT, text, 40u, ZEP_LOGDATA_STRING) != 0)
            return 4;
    }
    return 0;
}
