#pragma once
// An answer that is not a response: the error number and text a runtime puts in a reply's
// `errn` and `errs` entries instead of the response's JSON.

#include <tl/expected.hpp>

#include <cstdint>
#include <string>

namespace tavix::runtime {

// The error numbers this runtime answers with.
namespace errn {
inline constexpr int32_t unknownRequestType = 1;
inline constexpr int32_t invalidRequest = -50;      // the request's JSON is not its record
inline constexpr int32_t cancelled = -128;          // the caller cancelled the request
inline constexpr int32_t badData = -1700;           // an unreadable payload, or a reply too large
inline constexpr int32_t missingParameter = -1701;  // a Send without a request type or body
inline constexpr int32_t eventNotHandled = -1708;   // not this event, or not ready
inline constexpr int32_t noSuchObject = -1728;      // the request names something not there (a capture)
inline constexpr int32_t unknownFailure = -10000;   // the runtime failed on its own
} // namespace errn

struct RuntimeError {
  int32_t errn = 0;
  std::string errs;
  friend bool operator==(const RuntimeError &, const RuntimeError &) = default;
};

template <typename T> using RuntimeResult = tl::expected<T, RuntimeError>;

inline tl::unexpected<RuntimeError> runtimeError(int32_t number, std::string text) {
  return tl::unexpected(RuntimeError{number, std::move(text)});
}

} // namespace tavix::runtime
