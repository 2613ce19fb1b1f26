// Defines a whole package from the list of its messages.
//
// DRIX_PACKAGE(package, prefix, LIST) stands in the package's one source file. LIST(MESSAGE) calls MESSAGE(package,
// message) for every message in registration order; the record of each is package_message. The macro gives every
// message its constants and its seven exported operations, and the package its binding units and its three functions,
// whose names start with prefix. package_variable_length is the number of its types that own memory, for the source
// file to assert.
#pragma once

#include "bus/registration.h"
#include "bus/send.h"
#include "drix_message.h"
#include "runtime/decode.h"
#include "runtime/encode.h"
#include "runtime/message.h"
#include "runtime/release.h"
#include "runtime/slots.h"

namespace drix {

template <class R>
constexpr bool is_well_formed() {
  static_assert(every_member_is_a_slot<R>(),
                "members are f0, f1, ... in this order, 48 slots at most, and nothing else");
  static_assert(nests_one_level<R>(), "embedded and element types hold no further tables, element types own nothing");
  return true;
}

}  // namespace drix

#define DRIX_MESSAGE_CONSTANTS(package, message)                                                           \
  template <>                                                                                              \
  inline constexpr drix::MessageInfo drix::kMessage<package##_##message> = {                               \
      .services = &package##_services,                                                                     \
      .id = drix_message_id(#package "." #message),                                                        \
      .prefix_length = sizeof #package "_" #message - 1,                                                   \
      .log_names = #package "_" #message "_pack\0" #package "_" #message "_unpack\0" #package "_" #message \
                            "_unpack_non_root\0" #package "_" #message "_free_unpacked",                   \
  };                                                                                                       \
  static_assert(drix::is_well_formed<package##_##message>());

#define DRIX_MESSAGE_OPERATIONS(package, message)                                                               \
  int32_t package##_##message##__pack(const package##_##message *record, uint8_t *buffer, uint32_t *length) {   \
    return drix::pack(drix::kEncoder<package##_##message>, record, buffer, length);                             \
  }                                                                                                             \
  uint32_t package##_##message##__unpack(const uint8_t *buffer, uint32_t length, package##_##message *record) { \
    return drix::unpack(buffer, length, record);                                                                \
  }                                                                                                             \
  void package##_##message##_free__unpacked(package##_##message *record) { drix::free_unpacked(record); }       \
  int32_t package##_##message##__sendmsg(uint32_t handle, const package##_##message *records, uint32_t count) { \
    return drix::send(drix::kEncoder<package##_##message>, handle, records, count, 0);                          \
  }                                                                                                             \
  int32_t package##_##message##__sendtomsg(uint32_t handle, const package##_##message *records, uint32_t count, \
                                           uint32_t destination) {                                              \
    return drix::send(drix::kEncoder<package##_##message>, handle, records, count, destination);                \
  }                                                                                                             \
  int32_t package##_##message##__sendsingle(uint32_t handle, const package##_##message *record, uint32_t,       \
                                            uint32_t destination) {                                             \
    return drix::send_single(drix::kEncoder<package##_##message>, handle, record, destination);                 \
  }                                                                                                             \
  int32_t package##_##message##__sendbatch(uint32_t handle, const package##_##message *records, uint32_t count, \
                                           uint32_t destination) {                                              \
    return drix::send_batch(drix::kEncoder<package##_##message>, handle, records, count, destination);          \
  }

#define DRIX_ADD_VARIABLE_LENGTH(package, message) +!drix::kFixedLength<package##_##message>

#define DRIX_MESSAGE_ID(package, message) drix::kMessage<package##_##message>.id,

// The bus knows records as untyped storage, so it is handed the typed operations through untyped pointers.
#define DRIX_MESSAGE_REGISTRATION(package, message)                                                         \
  {drix::kMessage<package##_##message>.id, reinterpret_cast<DrixDecodeFunc>(package##_##message##__unpack), \
   reinterpret_cast<DrixReleaseFunc>(package##_##message##_free__unpacked)},

#define DRIX_PACKAGE(package, prefix, LIST)                                                                   \
  static constinit drix::PackageServices package##_services;                                                  \
  LIST(DRIX_MESSAGE_CONSTANTS)                                                                                \
  static constexpr uint32_t package##_ids[] = {LIST(DRIX_MESSAGE_ID)};                                        \
  static_assert(drix::ids_are_unique(package##_ids), "the bus tells message types apart by ID");              \
  static constexpr std::size_t package##_variable_length = 0 LIST(DRIX_ADD_VARIABLE_LENGTH);                  \
  extern "C" {                                                                                                \
  LIST(DRIX_MESSAGE_OPERATIONS)                                                                               \
  int32_t prefix##_recv_init(void) {                                                                          \
    static const drix::Registration messages[] = { LIST(DRIX_MESSAGE_REGISTRATION) };                         \
    return drix::register_messages(messages);                                                                 \
  }                                                                                                           \
  int32_t prefix##_send_init(void) { return DRIX_RegIDLResorceCleanFuncHook(prefix##__send_resource_clean); } \
  void prefix##__send_resource_clean(void) {}                                                                 \
  }
