#pragma once
// The bridge drives the user's desktop, so it serves only a parent process whose code
// signature names a trusted team and a trusted bundle identifier.

#include "platform/CodeSigning.h"
#include "config/BundleIdentifiers.h"

#include <tl/expected.hpp>

#include <cstdint>
#include <optional>
#include <string>

namespace tavix {

struct ParentAuthorizationError {
  enum class Kind { codeSigningError, untrustedTeamID, untrustedBundleID };
  Kind kind;
  int32_t status = 0;                    // codeSigningError
  std::optional<std::string> identifier; // the untrusted team or bundle identifier

  static ParentAuthorizationError codeSigningError(int32_t status) {
    return {Kind::codeSigningError, status, std::nullopt};
  }
  static ParentAuthorizationError untrustedTeamID(std::optional<std::string> team) {
    return {Kind::untrustedTeamID, 0, std::move(team)};
  }
  static ParentAuthorizationError untrustedBundleID(std::optional<std::string> bundle) {
    return {Kind::untrustedBundleID, 0, std::move(bundle)};
  }

  std::string description() const;
};

// Does nothing when enforcement is switched off; otherwise checks the parent's team,
// then its bundle identifier.
tl::expected<void, ParentAuthorizationError>
verifyParentProcessIfNeeded(const BundleIdentifiers &configuration, CodeSigningServices &signing,
                            int32_t parentPID);

// The same for this process's parent, with the system's services and configuration.
tl::expected<void, ParentAuthorizationError> verifyParentProcessIfNeeded();

} // namespace tavix
