// zepos_sys.h - processor, clock and scheduling stand-ins of the OS layer.
#ifndef ZEPOS_SYS_H
#define ZEPOS_SYS_H

#include "zeptypes.h"

namespace ZEPOS_VISIBLE zepos {}

#endif
