#include "probe.h"

#include "packages/package.h"

DRIX_PACKAGE(probe, probe, PROBE_MESSAGES)

uint32_t probe_named_build(uint8_t *buffer, uint32_t capacity, const probe_named *record) {
  return drix::build(drix::kEncoder<probe_named>, buffer, capacity, record);
}

// Mistakes in a structure that the compiler must find.
namespace {

struct Misspelt {
  uint32_t f0;
  uint32_t g1;
  uint32_t f2;
};
struct MisspeltInPadding {
  uint32_t f0;
  uint8_t f1;
  uint8_t count;
};
struct Swapped {
  uint32_t f1;
  uint32_t f0;
};
struct LengthAfterBytes {
  uint8_t *f0;
  uint32_t f0Len;
};
struct TwoLevels {
  uint32_t f0;
  probe_carrier f1;
};
struct OwningElements {
  uint32_t f0Count;
  probe_named *f0;
};

static_assert(!drix::every_member_is_a_slot<Misspelt>());
static_assert(!drix::every_member_is_a_slot<MisspeltInPadding>());
static_assert(!drix::every_member_is_a_slot<Swapped>());
static_assert(!drix::every_member_is_a_slot<LengthAfterBytes>());
static_assert(!drix::nests_one_level<TwoLevels>());
static_assert(!drix::nests_one_level<OwningElements>());
static_assert(drix::every_member_is_a_slot<probe_every>() && drix::nests_one_level<probe_every>());
static_assert(!drix::kFixedLength<probe_holder> && drix::kFixedLength<probe_carrier>);
static_assert(probe_variable_length == 4);
constexpr uint32_t kRepeatedIds[] = {7, 8, 7};
static_assert(!drix::ids_are_unique(kRepeatedIds));

}  // namespace
