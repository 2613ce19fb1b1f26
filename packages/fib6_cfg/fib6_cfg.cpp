#include "fib6_cfg.h"

#include "packages/package.h"

DRIX_PACKAGE(fib6_cfg, fib6_cfg, FIB6_CFG_MESSAGES)

static_assert(fib6_cfg_variable_length == 8,
              "whether a record owns memory is part of its contract: raise the number with a type that does");
