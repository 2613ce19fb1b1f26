// A vector's elements by the instructions that move the bytes of a mask together and apart (AVX-512 VBMI2).
//
// The shape of an element is the mask of its scalars' bytes. Nothing else has to be worked out, so nothing is remembered
// and all shapes are alike.
#pragma once

#include "runtime/element_type.h"

#if defined(__x86_64__)
#define DRIX_HAS_MASKS

namespace drix {

// Of types that have an ElementMasks. Reading stops where an element is not what a writer of this library makes of its
// shape.
uint8_t *write_by_masks(const ElementType &type, uint8_t *words, uint32_t count, const void *records, uint8_t *end);
uint32_t read_by_masks(const ElementType &type, const uint8_t *buffer, uint32_t length, uint32_t words, uint32_t count,
                       void *records);

}  // namespace drix

#endif
