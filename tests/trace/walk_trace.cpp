// Reads trace files as strictly as the format is meant, and prints a line for every packet: walk_trace FILE... Fails at
// the first thing that is not whole. It shares nothing with the recorder.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

std::string file_name;
uint32_t process = 0;  // the file's
std::vector<uint8_t> bytes;

[[noreturn]] void fail(std::size_t at, const char *what) {
  std::printf("%s: byte %zu: %s\n", file_name.c_str(), at, what);
  std::exit(1);
}

uint32_t word(std::size_t at) {  // of the file, in the writer's byte order
  uint32_t value;
  std::memcpy(&value, &bytes[at], 4);
  return value;
}

uint32_t half(std::size_t at) {
  uint16_t value;
  std::memcpy(&value, &bytes[at], 2);
  return value;
}

uint32_t little(std::size_t at) {
  return bytes[at] | uint32_t{bytes[at + 1]} << 8 | uint32_t{bytes[at + 2]} << 16 | uint32_t{bytes[at + 3]} << 24;
}

// Returns the value of the option epb_flags.
uint32_t walk_options(std::size_t at, std::size_t end) {
  uint32_t flags = 0;
  while (at != end) {
    if (end - at < 4) fail(at, "a cut option");
    const uint32_t code = half(at);
    const uint32_t length = half(at + 2);
    if ((length + 3u) / 4 * 4 > end - at - 4) fail(at, "an option that is too long");
    if (code == 2 && length == 4) flags = word(at + 4);
    if (code == 0 && at + 4 != end) fail(at, "something behind the options");
    at += 4 + (length + 3u) / 4 * 4;
  }
  return flags;
}

// Whether a payload is as traced.cpp makes it.
bool is_payload(std::size_t at, uint32_t length) {
  for (uint32_t i = 8; i < length; ++i) {
    if (bytes[at + i] != static_cast<uint8_t>(word(at + 4) + i)) return false;
  }
  return true;
}

void walk_packet(std::size_t at, std::size_t end) {
  const uint32_t captured = word(at + 20);
  const uint32_t original = word(at + 24);
  if (captured < 32 || captured > original || (captured + 3u) / 4 * 4 > end - at - 32) fail(at, "a wrong length");
  const uint32_t flags = walk_options(at + 28 + (captured + 3u) / 4 * 4, end - 4);
  const std::size_t header = at + 28;
  const uint32_t kind = bytes[header + 3];
  if (std::memcmp(&bytes[header], "QT\1", 3) != 0 || kind > 2) fail(at, "no header");
  if (flags != (kind == 0 ? 2u : kind == 1 ? 1u : 0u)) fail(at, "a wrong direction");
  const std::size_t payload = header + 32;
  if (kind == 2) {
    const std::string text(bytes.begin() + static_cast<std::ptrdiff_t>(payload),
                           bytes.begin() + static_cast<std::ptrdiff_t>(header + captured));
    if (text.rfind("program ", 0) == 0) process = little(header + 28);
    std::printf("note handle=%u %s\n", little(header + 8), text.c_str());
    return;
  }
  std::printf("%s id=%08X handle=%u destination=%u status=%d thread=%s message=%u/%u captured=%u/%u",
              kind == 0 ? "sent" : "received", little(header + 4), little(header + 8), little(header + 12),
              static_cast<int32_t>(little(header + 16)), little(header + 28) == process ? "main" : "other",
              little(header + 20), little(header + 24), captured - 32, original - 32);
  if (captured < 40) {
    std::puts("");
  } else {
    if (!is_payload(payload, captured - 32)) fail(at, "another payload");
    std::printf(" stream=%u number=%u\n", word(payload), word(payload + 4));
  }
}

void walk() {
  if (bytes.size() < 28 || word(0) != 0x0A0D0D0A || word(8) != 0x1A2B3C4D) fail(0, "no section");
  for (std::size_t at = 0; at != bytes.size();) {
    if (bytes.size() - at < 12) fail(at, "a cut block");
    const uint32_t length = word(at + 4);
    if (length < 12 || length % 4 != 0 || length > bytes.size() - at) fail(at, "a wrong length");
    if (word(at + length - 4) != length) fail(at, "two lengths");
    const uint32_t type = word(at);
    if (type == 6) {
      walk_packet(at, at + length);
    } else if (type == 1) {
      if (half(at + 8) != 147) fail(at, "another link type");
      walk_options(at + 16, at + length - 4);
    } else if (type == 0x0A0D0D0A) {
      walk_options(at + 24, at + length - 4);
    } else if (type != 0x80000051) {
      fail(at, "a block of unknown type");
    }
    at += length;
  }
}

}  // namespace

int main(int argc, char **argv) {
  for (int i = 1; i < argc; ++i) {
    file_name = argv[i];
    std::ifstream file(file_name, std::ios::binary);
    bytes.assign(std::istreambuf_iterator<char>(file), {});
    std::printf("file %s\n", file_name.c_str());
    walk();
  }
  return 0;
}
