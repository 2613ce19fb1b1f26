#include "korBrokerFib6.h"

#include "packages/package.h"

DRIX_PACKAGE(korBrokerFib6, fib6, KORBROKERFIB6_MESSAGES)

static_assert(korBrokerFib6_variable_length == 10,
              "whether a record owns memory is part of its contract: raise the number with a type that does");
