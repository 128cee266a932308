#include "bridge/ParentAuthorization.h"

#include "config/MainBundle.h"

#include <unistd.h>

namespace tavix {
namespace {

std::optional<std::string> textEntry(const PropertyListDictionary &information, const char *key) {
  const auto found = information.find(key);
  if (found == information.end())
    return std::nullopt;
  if (const auto *text = found->second.get<std::string>())
    return *text;
  return std::nullopt;
}

} // namespace

std::string ParentAuthorizationError::description() const {
  switch (kind) {
  case Kind::codeSigningError:
    return "Code signing verification failed: " + std::to_string(status);
  case Kind::untrustedTeamID:
    return "Untrusted parent team identifier: " + identifier.value_or("nil");
  case Kind::untrustedBundleID:
    return "Untrusted parent bundle identifier: " + identifier.value_or("nil");
  }
  return {};
}

tl::expected<void, ParentAuthorizationError>
verifyParentProcessIfNeeded(const BundleIdentifiers &configuration, CodeSigningServices &signing,
                            int32_t parentPID) {
  using Error = ParentAuthorizationError;
  if (!configuration.senderAuthorizationEnforced())
    return {};

  const auto running = signing.guestCode(parentPID);
  if (running.status != 0 || !running.code)
    return tl::unexpected(Error::codeSigningError(running.status));
  const auto onDisk = signing.staticCode(*running.code);
  if (onDisk.status != 0 || !onDisk.code)
    return tl::unexpected(Error::codeSigningError(onDisk.status));
  const auto signature = signing.signingInformation(*onDisk.code);
  if (signature.status != 0 || !signature.information)
    return tl::unexpected(Error::codeSigningError(signature.status));

  // The team is checked first, so a parent that fails both is reported by its team.
  const auto team = textEntry(*signature.information, signingInformationTeamIdentifierKey);
  if (!team || !configuration.trustedTeamIdentifiers().contains(*team))
    return tl::unexpected(Error::untrustedTeamID(team));
  const auto bundle = textEntry(*signature.information, signingInformationIdentifierKey);
  if (!bundle || !configuration.trustedBundleIDs().contains(*bundle))
    return tl::unexpected(Error::untrustedBundleID(bundle));
  return {};
}

tl::expected<void, ParentAuthorizationError> verifyParentProcessIfNeeded() {
  // One read of the information dictionary serves every key the check needs.
  const BundleIdentifiers configuration(
      std::make_shared<const PropertyListSnapshot>(mainBundleInfoDictionary()->read()));
  const auto signing = makeSystemCodeSigningServices();
  return verifyParentProcessIfNeeded(configuration, *signing, static_cast<int32_t>(getppid()));
}

} // namespace tavix
