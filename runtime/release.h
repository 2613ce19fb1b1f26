// Release: giving back the blocks that decoding allocated for a record.
#pragma once

#include "runtime/message.h"
#include "runtime/slots.h"

namespace drix {

// Frees what the record owns, in slot order, and nulls the pointers; lengths and counts stay. Memory services are
// bound.
template <class R>
void release_members(R &record) {
  for_each_slot<R>([&]<class S>(S) {
    auto &value = S::value(record);
    if constexpr (S::kind == Kind::table) {
      release_members(value);
    } else if constexpr (S::kind == Kind::bytes || S::kind == Kind::vector) {
      if (value != nullptr) svc_free(kMessage<R>.services->decoding, value, kMessage<R>.release_name());
      value = nullptr;
    }
  });
}

// The release function that a package exports for R, see X_free__unpacked in drix_message.h.
template <class R>
void free_unpacked(R *record) {
  if constexpr (!kFixedLength<R>) {
    if (record == nullptr) return;
    svc_bind_mem(kMessage<R>.services->decoding);
    release_members(*record);
  }
}

}  // namespace drix
