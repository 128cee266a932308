#pragma once
// The identities this system knows: its own processes, the hosts trusted to start the
// bridge, a pinned certificate digest and the applications that must never be operated.
// Each value comes from a key of the information dictionary, with a built-in default;
// the dictionary is read at every access, so nothing is cached.

#include "config/PropertyListSource.h"

#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>

namespace tavix {

// Splits at commas, semicolons, spaces, tabs and line breaks, trims each piece and drops
// empty ones.
std::set<std::string> parseStringList(std::string_view text);

class BundleIdentifiers {
public:
  static constexpr std::string_view applicationGroup = "TAVIXDEV.com.tavix.computeruse";
  static constexpr std::string_view defaultRuntimeAppName = "Tavix Computer Use.app";
  static constexpr std::string_view defaultTeamIdentifier = "K4ZQ7MR2XN";

  explicit BundleIdentifiers(std::shared_ptr<const PropertyListSource> infoDictionary)
      : infoDictionary_(std::move(infoDictionary)) {}
  // Over the running program's information dictionary.
  static const BundleIdentifiers &main();

  std::string computerUseRuntime() const;
  std::string computerUseBridge() const;
  std::string lockedUseGuardian() const;
  std::string lockedUseAuthorizationPlugin() const;
  std::string runtimeAppName() const;
  std::string runtimeAppDisplayName() const;
  std::string defaultTavixHomeDirectoryName() const;
  std::set<std::string> defaultTrustedBundleIDs() const;
  std::set<std::string> trustedBundleIDs() const;
  std::string teamIdentifier() const;
  std::set<std::string> trustedTeamIdentifiers() const;
  // 64 lower-case hex digits, or nothing.
  std::optional<std::string> lockedUseCertificateSHA256() const;
  std::set<std::string> lockedUseTrustedTeamIdentifiers() const;
  bool senderAuthorizationEnforced() const;

  // Applications whose windows are never captured or driven.
  static const std::set<std::string, std::less<>> &disallowedThiefProcesses();

private:
  std::shared_ptr<const PropertyListSource> infoDictionary_;
};

} // namespace tavix
