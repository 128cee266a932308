#pragma once

namespace tavix {

// Which family of tools one server process offers. A server runs in exactly one mode for its
// whole life and never mixes the tools of the two.
enum class MCPServerMode {
  computerUse,  // observe and operate the apps on this computer
  recordReplay, // record the user's interactions as a reusable workflow
};

} // namespace tavix
