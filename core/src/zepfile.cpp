// zepfile.cpp - operations on files by path.
#include "zepfile.h"

#include "zepframe.h"

Uint32 zepFileRename(const char* oldPath, const char* newPath) {
    ZepFrame f(ZEPFN_zepFileRename);
    f.traceData(10, ZepTrcStr{oldPath}, ZepTrcStr{newPath});
    if (!zepos::MoveFileA(oldPath, newPath)) {
        // One code for every reason: callers of this operation test for it alone.
        f.failSys(ECF_FILE_DOESNT_EXIST, 30, ZEP_LOG_INFO, SYSFN_MoveFile, zepos::GetLastError(),
                  ZEP_LOG_ARGS(3), ZepLogStr(oldPath), ZepLogStr(newPath));
    }
    return f.exit();
}
