// Any bytes against the decoders of one package, FUZZ_PACKAGE. The first byte chooses the type, the rest is the image.
#include "target.h"

int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
  static const auto subjects = fuzz::subjects_of(reference::types_of(FUZZ_PACKAGE));
  if (size == 0) return 0;
  const reference::Bytes image(data + 1, data + size);  // a heap block of its own length, which sanitizers watch
  fuzz::judge_decoding(subjects[data[0] % subjects.size()], image);
  return 0;
}
