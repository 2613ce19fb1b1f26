#include "inspect/extent.h"

namespace drix::inspect {
namespace {

bool in_slots(const Event &culprit) {
  return culprit.thing == Thing::slot_entry || culprit.thing == Thing::offset_word || culprit.thing == Thing::count ||
         culprit.thing == Thing::element_word;
}

}  // namespace

Extent extent_of(const Verdict &verdict) {
  if (verdict.accepted()) return {};
  const TablePath &path = verdict.path;
  const Event &culprit = verdict.culprit;
  const std::size_t slot = in_slots(culprit) ? culprit.slot : 0;
  if (path.outer == TablePath::kNone) {
    return {.root_slots = slot, .elements = culprit.thing == Thing::element_word ? culprit.element : 0};
  }
  return {.root_slots = path.outer,
          .elements = path.element == TablePath::kNone ? 0 : path.element,
          .inner_slots = slot,
          .has_inner = true};
}

}  // namespace drix::inspect
