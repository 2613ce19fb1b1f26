// The groups of cases; each registers its own with the benchmark library, under names of the form row/column.
#pragma once

namespace bench {

void register_codec_cases();   // each operation of some message types, beside what bounds it
void register_send_cases();    // batches of different length
void register_vector_cases();  // vectors of different length

}  // namespace bench
