#include "fib6Sync.h"

#include "packages/package.h"

DRIX_PACKAGE(fib6Sync, fib6_sync, FIB6SYNC_MESSAGES)

static_assert(fib6Sync_variable_length == 0,
              "whether a record owns memory is part of its contract: raise the number with a type that does");
