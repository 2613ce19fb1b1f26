// Endpoints at servers, read like captures: what is on its way to receivers, and what streams keep.
#pragma once

#include <functional>
#include <string>

#include "capture/timeline.h"
#include "tools/quopa/command.h"

namespace quopa {

bool is_endpoint(const std::string &path);

// Whether there are any among the paths. Throws BadUsage when one of them has no end and it is not alone, for nobody can
// tell what comes next.
bool has_endpoint(const std::vector<std::string> &paths, const TapOptions &options);

// How files and endpoints of a selection are opened. An endpoint ends when the process is interrupted, and a stream where
// it ends when it is opened. idle() is called before something is waited for; it may throw.
capture::Timeline::Open opener(
    const SelectionOptions &options, std::function<void()> idle = [] {});

// Has the endpoint written to a file, as what was sent or received, until it ends. False when something is missing.
bool record(const std::string &endpoint, TraceKind kind, const TapOptions &options, const std::string &file);

}  // namespace quopa
