// zeplistat.h - the listing of an open directory, for the walks of the directory operations.
#ifndef ZEPLISTAT_H
#define ZEPLISTAT_H

#include "zepdirlist.h"

// begin() for a directory handle of the OS layer (zepos::OpenDirectoryAt): every entry, "." and
// ".." among them, with its own type (a symbolic link is a link, 0xA000, never what it points
// to). Runs under begin()'s identifier; `path` names the directory in trace and log records.
// A directory that could not be opened comes as INVALID_HANDLE_VALUE with the platform's
// reason in `openError`, and fails as a search that failed at the start.
Uint32 zepListingBeginAt(ZEPDirectoryListing* listing, void* directory, Uint32 openError,
                         const char* path, Uint32 typeMask);

#endif
