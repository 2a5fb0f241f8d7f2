// zepfile.h - operations on files by path.
#ifndef ZEPFILE_H
#define ZEPFILE_H

#include "zeptypes.h"

ZEP_BEGIN_C

// Renames a file or directory; an existing target is never replaced. Every failure gives
// ECF_FILE_DOESNT_EXIST, whatever the platform's reason (which the log record names).
// Both paths must be valid strings.
ZEP_EXPORT Uint32 zepFileRename(const char* oldPath, const char* newPath);

ZEP_END_C

#endif
