#include "fib6_cfg.h"

#include "bus/package.h"

DRIX_PACKAGE(fib6_cfg, fib6_cfg, FIB6_CFG_MESSAGES)
