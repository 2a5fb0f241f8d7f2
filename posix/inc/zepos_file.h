// zepos_file.h - file stand-ins of the OS layer.
#ifndef ZEPOS_FILE_H
#define ZEPOS_FILE_H

#include "zeptypes.h"

namespace zepos {}

#endif
