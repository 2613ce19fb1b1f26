// The exported operations of a message type, found by name as a process would find them.
#pragma once

#include <dlfcn.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "schema.h"

struct Operations {
  int32_t (*pack)(const void *record, uint8_t *buffer, uint32_t *length);
  uint32_t (*unpack)(const uint8_t *buffer, uint32_t length, void *record);
  void (*free_unpacked)(void *record);
  int32_t (*sendmsg)(uint32_t handle, const void *records, uint32_t count);
  int32_t (*sendtomsg)(uint32_t handle, const void *records, uint32_t count, uint32_t destination);
  int32_t (*sendsingle)(uint32_t handle, const void *record, uint32_t count, uint32_t destination);
  int32_t (*sendbatch)(uint32_t handle, const void *records, uint32_t count, uint32_t destination);
};

inline Operations operations_of(const std::string &prefix) {
  const auto set = [&](auto &operation, const char *suffix) {
    operation =
        reinterpret_cast<std::remove_reference_t<decltype(operation)>>(dlsym(RTLD_DEFAULT, (prefix + suffix).c_str()));
    if (operation == nullptr) throw std::runtime_error(prefix + suffix + " is not exported");
  };
  Operations found;
  set(found.pack, "__pack");
  set(found.unpack, "__unpack");
  set(found.free_unpacked, "_free__unpacked");
  set(found.sendmsg, "__sendmsg");
  set(found.sendtomsg, "__sendtomsg");
  set(found.sendsingle, "__sendsingle");
  set(found.sendbatch, "__sendbatch");
  return found;
}

// The library's message types and the test's own.
inline std::vector<const reference::Type *> every_type() {
  std::vector<const reference::Type *> types = reference::all_types();
  for (const reference::Type *type : reference::types_of("probe")) types.push_back(type);
  return types;
}
