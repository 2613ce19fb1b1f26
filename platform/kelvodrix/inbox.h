#ifndef KELVODRIX_INBOX_H
#define KELVODRIX_INBOX_H

#include "transport.h"

namespace kelvodrix {

int32_t make_socket_inbox(const char *endpoint, std::unique_ptr<Inbox> &inbox);

}  // namespace kelvodrix

#endif
