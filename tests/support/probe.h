/* Package probe: shapes that the library's own message types do not have, defined as a user of the macros would. */
#pragma once

#include "drix_message.h"

extern "C" {

typedef struct probe_mixed {
  uint32_t f0;
  uint8_t f1;
  uint8_t f2[3];
} probe_mixed;

typedef struct probe_leaf {
  uint32_t f0;
  uint32_t f1;
} probe_leaf;

typedef struct probe_item {
  uint32_t f0;
  uint8_t f1;
} probe_item;

typedef struct probe_tree {
  probe_leaf f0;
  uint32_t f1Count;
  probe_item *f1;
} probe_tree;

typedef struct probe_every {
  uint8_t f0;
  uint16_t f1;
  uint32_t f2;
  uint8_t f3[3];
  uint32_t f4[4];
  uint32_t f5Len;
  uint8_t *f5;
  probe_leaf f6;
  uint32_t f7Count;
  probe_item *f7;
  uint32_t f8Len;
  uint8_t *f8;
} probe_every;

typedef struct probe_named {
  uint32_t f0;
  uint32_t f1Len;
  uint8_t *f1;
} probe_named;

typedef struct probe_holder {
  probe_named f0;
  probe_leaf f1;
} probe_holder;

typedef struct probe_carrier {
  uint16_t f0;
  probe_mixed f1;
  uint8_t f2;
} probe_carrier;

#define PROBE_MESSAGES(MESSAGE) \
  MESSAGE(probe, mixed)         \
  MESSAGE(probe, leaf)          \
  MESSAGE(probe, item)          \
  MESSAGE(probe, tree)          \
  MESSAGE(probe, named)         \
  MESSAGE(probe, holder)        \
  MESSAGE(probe, carrier)       \
  MESSAGE(probe, every)

PROBE_MESSAGES(DRIX_DECLARE_MESSAGE)
DRIX_DECLARE_PACKAGE(probe)
}

// The builder behind the operations of named.
uint32_t probe_named_build(uint8_t *buffer, uint32_t capacity, const probe_named *record);
