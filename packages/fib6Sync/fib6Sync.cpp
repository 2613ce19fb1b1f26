#include "fib6Sync.h"

#include "bus/package.h"

DRIX_PACKAGE(fib6Sync, fib6_sync, FIB6SYNC_MESSAGES)
