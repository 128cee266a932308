#pragma once
// The names of the runtime's D-Bus interface (docs/runtime-dbus-interface.md), shared by
// the bridge's event channel and the project's runtime simulator.

#include <cstddef>

namespace tavix::runtimebus {

inline constexpr const char *objectPath = "/com/tavix/computeruse";
inline constexpr const char *interfaceName = "com.tavix.computeruse.AppleEvent1";
inline constexpr const char *sendMethod = "Send";
inline constexpr const char *sendSignature = "ssa{sv}";

// Request parameters.
inline constexpr const char *requestTypeKey = "RspT";
inline constexpr const char *requestDataKey = "ReqD";
inline constexpr const char *requestFileKey = "ReqF";
inline constexpr const char *requestIDKey = "RqID";
inline constexpr const char *clientVersionKey = "ClVn";

// Reply entries.
inline constexpr const char *errorNumberKey = "errn";
inline constexpr const char *errorTextKey = "errs";
inline constexpr const char *directObjectKey = "----";
inline constexpr const char *responseFileKey = "RspF";

// Payloads above this size travel as sealed memfds instead of inline bytes.
inline constexpr size_t inlinePayloadLimit = 64 * 1024;

} // namespace tavix::runtimebus
