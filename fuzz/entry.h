// What libFuzzer, or replay.cpp in its place, calls with each input.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size);
