// The groups of cases; each registers its own with the benchmark library, under names of the form table/row/column.
#pragma once

#include <cstdint>

namespace bench {

// So many records in turn are soon learned by a branch predictor, so many never: the second is what real tables are.
inline constexpr uint32_t kLearned = 16;
inline constexpr uint32_t kUnseen = 100'000;

void register_single_cases();  // every operation on some record types, beside what bounds it and beside its peers
void register_fixed_cases();   // build and decode of the fixed layout of all types that have one
void register_vector_cases();  // vectors of routes of different length and shape, beside the peers
void register_send_cases();    // batches of different length, beside building alone

}  // namespace bench
