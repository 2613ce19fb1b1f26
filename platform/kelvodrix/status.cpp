#include "status.h"

const char *kelvodrix_strerror(int32_t status) {
  switch (status) {
    case KELVODRIX_OK:
      return "success";
    case KELVODRIX_ERR_INVALID:
      return "invalid argument";
    case KELVODRIX_ERR_HANDLE:
      return "no such open channel";
    case KELVODRIX_ERR_DESTINATION:
      return "no such destination";
    case KELVODRIX_ERR_ENDPOINT:
      return "malformed or unsupported endpoint";
    case KELVODRIX_ERR_BIND:
      return "endpoint cannot be bound";
    case KELVODRIX_ERR_IN_USE:
      return "endpoint in use";
    case KELVODRIX_ERR_NO_RECEIVER:
      return "no receiver connected";
    case KELVODRIX_ERR_WINDOW:
      return "window full";
    case KELVODRIX_ERR_TOO_BIG:
      return "frame too big";
    case KELVODRIX_ERR_PENDING:
      return "messages still unacknowledged";
    case KELVODRIX_ERR_LOST:
      return "messages lost";
    case KELVODRIX_ERR_RECORD_SIZE:
      return "unusable record size";
    case KELVODRIX_ERR_BUSY:
      return "receive loop running";
    case KELVODRIX_ERR_NO_MEMORY:
      return "out of memory";
    case KELVODRIX_ERR_SYSTEM:
      return "system failure";
    default:
      return "unknown status";
  }
}
