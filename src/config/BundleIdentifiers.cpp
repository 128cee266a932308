#include "config/BundleIdentifiers.h"

#include "config/MainBundle.h"
#include "support/Whitespace.h"

namespace tavix {
namespace {

const PropertyListValue *lookUp(const PropertyListDictionary &info, std::string_view key) {
  const auto found = info.find(key);
  return found == info.end() ? nullptr : &found->second;
}

std::optional<std::string> trimmedText(const PropertyListValue *value) {
  return trimmedNonEmpty(value != nullptr ? value->get<std::string>() : nullptr);
}

std::string configuredString(const PropertyListDictionary &info, std::string_view key,
                             std::string_view defaultValue) {
  return trimmedText(lookUp(info, key)).value_or(std::string(defaultValue));
}

std::set<std::string> configuredStringSet(const PropertyListDictionary &info,
                                          std::string_view key,
                                          std::set<std::string> defaultValue) {
  const PropertyListValue *value = lookUp(info, key);
  if (value == nullptr)
    return defaultValue;
  if (const auto *items = value->get<PropertyListArray>()) {
    std::set<std::string> result;
    bool allText = true;
    for (const PropertyListValue &item : *items) {
      if (item.get<std::string>() == nullptr)
        allText = false;
      else if (auto text = trimmedText(&item))
        result.insert(std::move(*text));
    }
    if (allText && !result.empty())
      return result;
  }
  if (const auto *text = value->get<std::string>()) {
    auto result = parseStringList(*text);
    if (!result.empty())
      return result;
  }
  return defaultValue;
}

// Booleans, the numbers that stand for one (0 and 1), and the usual words for yes and no.
bool configuredBool(const PropertyListDictionary &info, std::string_view key, bool defaultValue) {
  const PropertyListValue *value = lookUp(info, key);
  if (value == nullptr)
    return defaultValue;
  if (const bool *flag = value->get<bool>())
    return *flag;
  if (const int64_t *number = value->get<int64_t>(); number && (*number == 0 || *number == 1))
    return *number == 1;
  if (const double *number = value->get<double>(); number && (*number == 0.0 || *number == 1.0))
    return *number == 1.0;
  if (const auto *text = value->get<std::string>()) {
    const std::string word = asciiLowercased(trimmedWhitespaceAndNewlines(*text));
    if (word == "1" || word == "true" || word == "yes")
      return true;
    if (word == "0" || word == "false" || word == "no")
      return false;
  }
  return defaultValue;
}

bool isHexDigit(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

namespace keys {
constexpr std::string_view runtime = "TavixComputerUseRuntimeBundleIdentifier";
constexpr std::string_view bridge = "TavixComputerUseBridgeBundleIdentifier";
constexpr std::string_view guardian = "TavixLockedUseGuardianBundleIdentifier";
constexpr std::string_view authorizationPlugin = "TavixLockedUseAuthorizationPluginBundleIdentifier";
constexpr std::string_view runtimeAppName = "TavixComputerUseRuntimeAppName";
constexpr std::string_view homeDirectoryName = "TavixComputerUseDefaultHomeDirectoryName";
constexpr std::string_view trustedBundleIDs = "TavixComputerUseTrustedBundleIdentifiers";
constexpr std::string_view teamIdentifier = "TavixComputerUseTrustedTeamIdentifier";
constexpr std::string_view trustedTeamIdentifiers = "TavixComputerUseTrustedTeamIdentifiers";
constexpr std::string_view certificateSHA256 = "TavixLockedUseCertificateSHA256";
constexpr std::string_view enforceSenderAuthorization = "TavixComputerUseEnforceSenderAuthorization";
} // namespace keys

std::string bridgeID(const PropertyListDictionary &info) {
  return configuredString(info, keys::bridge, "com.tavix.computeruse.bridge");
}

// Only the hex digits count, so separators such as colons or spaces may stand between.
std::optional<std::string> certificateDigest(const PropertyListDictionary &info) {
  const PropertyListValue *value = lookUp(info, keys::certificateSHA256);
  const auto *text = value != nullptr ? value->get<std::string>() : nullptr;
  if (text == nullptr)
    return std::nullopt;
  std::string digits;
  for (char c : *text)
    if (isHexDigit(c))
      digits += c;
  if (digits.size() != 64)
    return std::nullopt;
  return asciiLowercased(digits);
}

std::string teamID(const PropertyListDictionary &info) {
  return configuredString(info, keys::teamIdentifier, BundleIdentifiers::defaultTeamIdentifier);
}

// The hosts and their helper processes (and, for command-line hosts, process names).
std::set<std::string> builtInTrustedBundleIDs(std::string bridgeBundleID) {
  return {"com.tavix.app",
          "com.tavix.app.helper",
          "com.tavix.app.helper.GPU",
          "com.tavix.app.helper.Plugin",
          "com.tavix.app.helper.Renderer",
          "com.tavix.app.canary",
          "com.tavix.app.canary.helper",
          "com.tavix.app.canary.helper.GPU",
          "com.tavix.app.canary.helper.Plugin",
          "com.tavix.app.canary.helper.Renderer",
          "com.tavix.ide",
          "com.tavix.ide.helper",
          "tavixcli",
          "Tavix",
          "com.tavixcn.app",
          "com.tavixcn.app.helper",
          "com.tavixcn.app.helper.GPU",
          "com.tavixcn.app.helper.Plugin",
          "com.tavixcn.app.helper.Renderer",
          "com.tavixcn.app.canary",
          "com.tavixcn.app.canary.helper",
          "com.tavixcn.app.canary.helper.GPU",
          "com.tavixcn.app.canary.helper.Plugin",
          "com.tavixcn.app.canary.helper.Renderer",
          "com.tavixcn.app.dev",
          "com.varnel.quorin.ide",
          "com.varnel.quorin.ide.helper",
          "tavixclicn",
          "TavixCN",
          "com.tavix.work",
          "com.tavix.computeruse.bridge",
          "com.tavix.cn.computeruse.bridge",
          std::move(bridgeBundleID)};
}

} // namespace

std::set<std::string> parseStringList(std::string_view text) {
  std::set<std::string> items;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find_first_of(",\n; \t", start);
    if (end == std::string_view::npos)
      end = text.size();
    const std::string_view piece = trimmedWhitespaceAndNewlines(text.substr(start, end - start));
    if (!piece.empty())
      items.emplace(piece);
    start = end + 1;
  }
  return items;
}

const BundleIdentifiers &BundleIdentifiers::main() {
  static const BundleIdentifiers identifiers(mainBundleInfoDictionary());
  return identifiers;
}

std::string BundleIdentifiers::computerUseRuntime() const {
  return configuredString(infoDictionary_->read(), keys::runtime, "com.tavix.computeruse");
}

std::string BundleIdentifiers::computerUseBridge() const { return bridgeID(infoDictionary_->read()); }

std::string BundleIdentifiers::lockedUseGuardian() const {
  return configuredString(infoDictionary_->read(), keys::guardian,
                          "com.tavix.computeruse.guardian");
}

std::string BundleIdentifiers::lockedUseAuthorizationPlugin() const {
  return configuredString(infoDictionary_->read(), keys::authorizationPlugin,
                          "com.tavix.computeruse.AuthorizationPlugin");
}

std::string BundleIdentifiers::runtimeAppName() const {
  return configuredString(infoDictionary_->read(), keys::runtimeAppName, defaultRuntimeAppName);
}

std::string BundleIdentifiers::runtimeAppDisplayName() const {
  std::string name = runtimeAppName();
  if (name.ends_with(".app"))
    name.resize(name.size() - 4);
  return name;
}

std::string BundleIdentifiers::defaultTavixHomeDirectoryName() const {
  return configuredString(infoDictionary_->read(), keys::homeDirectoryName, ".tavix");
}

std::set<std::string> BundleIdentifiers::defaultTrustedBundleIDs() const {
  return builtInTrustedBundleIDs(computerUseBridge());
}

std::set<std::string> BundleIdentifiers::trustedBundleIDs() const {
  const PropertyListDictionary info = infoDictionary_->read();
  return configuredStringSet(info, keys::trustedBundleIDs, builtInTrustedBundleIDs(bridgeID(info)));
}

std::string BundleIdentifiers::teamIdentifier() const { return teamID(infoDictionary_->read()); }

std::set<std::string> BundleIdentifiers::trustedTeamIdentifiers() const {
  const PropertyListDictionary info = infoDictionary_->read();
  return configuredStringSet(
      info, keys::trustedTeamIdentifiers,
      {teamID(info), "K4ZQ7MR2XN", "R8WJ3N6PLC", "M2HX9TQ4VE"});
}

std::optional<std::string> BundleIdentifiers::lockedUseCertificateSHA256() const {
  return certificateDigest(infoDictionary_->read());
}

std::set<std::string> BundleIdentifiers::lockedUseTrustedTeamIdentifiers() const {
  const PropertyListDictionary info = infoDictionary_->read();
  if (certificateDigest(info))
    return {};
  return {teamID(info)};
}

bool BundleIdentifiers::senderAuthorizationEnforced() const {
  return configuredBool(infoDictionary_->read(), keys::enforceSenderAuthorization, true);
}

const std::set<std::string, std::less<>> &BundleIdentifiers::disallowedThiefProcesses() {
  static const std::set<std::string, std::less<>> applications = {
      "com.1password.1password",   "com.1password.safari",    "com.bitwarden.desktop",
      "com.dashlane.dashlanephonefinal", "com.lastpass.LastPass", "com.nordsec.nordpass",
      "me.proton.pass.electron",   "me.proton.pass.catalyst", "com.apple.Terminal",
      "com.googlecode.iterm2",     "dev.warp.Warp-Stable",    "net.kovidgoyal.kitty",
      "com.github.wez.wezterm",    "com.mitchellh.ghostty",   "com.raphaelamorim.rio",
      "dev.commandline.waveterm",  "com.google.Chrome",       "com.apple.ScreenContinuity"};
  return applications;
}

} // namespace tavix
