#ifndef KELVODRIX_NATS_LINK_H
#define KELVODRIX_NATS_LINK_H

#include "../kelvodrix/transport.h"

namespace kelvodrix {

int32_t make_nats_link(const char *endpoint, const kelvodrix_options &options, std::shared_ptr<Link> &link);

}  // namespace kelvodrix

#endif
