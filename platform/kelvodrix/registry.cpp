#include "registry.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "status.h"

namespace kelvodrix {

namespace {

struct Registry {
  std::mutex mutex;
  std::unordered_map<uint32_t, Registration> registrations;
  std::vector<DrixResourceCleanFunc> hooks;
};

// Never destroyed: threads may still be receiving while the process exits.
Registry &registry() {
  static Registry &instance = *new Registry;
  return instance;
}

// A decoder tells the size of its record only by decoding. A table without fields decodes in silence, so nothing shows
// in the platform's log.
uint32_t learn_record_bytes(DrixDecodeFunc decode, DrixReleaseFunc release) {
  static constexpr std::array<uint8_t, 12> kEmptyTable = {8, 0, 0, 0, 4, 0, 4, 0, 4, 0, 0, 0};
  struct Scratch {
    alignas(std::max_align_t) std::array<uint8_t, KELVODRIX_MAX_RECORD_BYTES> bytes;
  };
  auto scratch = std::make_unique<Scratch>();
  uint32_t size = decode(kEmptyTable.data(), kEmptyTable.size(), scratch->bytes.data());
  release(scratch->bytes.data());
  return size;
}

}  // namespace

Registration find_registration(uint32_t id) {
  Registry &all = registry();
  std::lock_guard lock(all.mutex);
  auto found = all.registrations.find(id);
  return found == all.registrations.end() ? Registration{} : found->second;
}

void run_clean_hooks() {
  std::vector<DrixResourceCleanFunc> hooks;
  {
    std::lock_guard lock(registry().mutex);
    hooks = registry().hooks;
  }
  for (DrixResourceCleanFunc hook : hooks) hook();
}

}  // namespace kelvodrix

using namespace kelvodrix;

int32_t DRIX_RegIDLFuncHook(uint32_t id, DrixDecodeFunc decode, DrixReleaseFunc release) {
  return guarded([&]() -> int32_t {
    if (decode == nullptr || release == nullptr) return KELVODRIX_ERR_INVALID;
    uint32_t size = learn_record_bytes(decode, release);
    if (size == 0 || size > KELVODRIX_MAX_RECORD_BYTES) return KELVODRIX_ERR_RECORD_SIZE;
    std::lock_guard lock(registry().mutex);
    registry().registrations[id] = {decode, release, size};
    return KELVODRIX_OK;
  });
}

int32_t DRIX_RegIDLResorceCleanFuncHook(DrixResourceCleanFunc clean) {
  return guarded([&]() -> int32_t {
    if (clean == nullptr) return KELVODRIX_ERR_INVALID;
    std::vector<DrixResourceCleanFunc> &hooks = registry().hooks;
    std::lock_guard lock(registry().mutex);
    if (std::find(hooks.begin(), hooks.end(), clean) == hooks.end()) hooks.push_back(clean);
    return KELVODRIX_OK;
  });
}
