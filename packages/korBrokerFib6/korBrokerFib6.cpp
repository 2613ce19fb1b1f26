#include "korBrokerFib6.h"

#include "bus/package.h"

DRIX_PACKAGE(korBrokerFib6, fib6, KORBROKERFIB6_MESSAGES)
