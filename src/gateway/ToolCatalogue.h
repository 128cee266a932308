#pragma once

#include "gateway/MCPServerMode.h"

#include <nlohmann/json.hpp>

namespace tavix {

// The fixed list of tool definitions for a server mode, in list order: a JSON array of objects
// with keys "name", "description", "inputSchema" and "annotations". This is what "tools/list"
// returns and what the model reads, so every text in it is verbatim.
//
// Each list is built once, on the first call for its mode (thread-safe), and never changes
// afterwards; the reference stays valid for the life of the process.
const nlohmann::json &toolDefinitions(MCPServerMode mode);

} // namespace tavix
