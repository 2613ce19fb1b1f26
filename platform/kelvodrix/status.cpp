#include <iterator>

#include "kelvodrix.h"

const char *kelvodrix_strerror(int32_t status) {
  static constexpr const char *kTexts[] = {
      "success",
      "unknown status",  // -1 is the library's
      "invalid argument",
      "no such open channel",
      "no such destination",
      "malformed or unsupported endpoint",
      "endpoint cannot be bound",
      "endpoint in use",
      "no receiver connected",
      "window full",
      "frame too big",
      "messages still unacknowledged",
      "messages lost",
      "receive loop running",
      "out of memory",
      "system failure",
      "path of the endpoint too long",
      "the folder of named endpoints belongs to somebody else or is open to others",
      "endpoints at servers need libkelvodrix_nats.so of this version and libnats (Debian: libkelvodrix-standin-nats)",
      "the file that KELVODRIX_NATS names, or one that it names, cannot be read or is malformed",
      "no server answers",
      "unknown host",
      "the server refuses the credentials, or they lack a right",
      "no TLS: the certificate does not fit, or one side has none",
      "the process was forked after it had used a server",
      "the server keeps no such stream: it has no JetStream, no room or too few servers",
      "another writer of the table, or its stream was taken away",
      "the stream is full",
  };
  return status <= 0 && status > -static_cast<int32_t>(std::size(kTexts)) ? kTexts[-status] : kTexts[1];
}
