#pragma once
// Switches read from the user defaults, for behaviour that a user or a test may turn on
// or off without a new build.

#include "config/UserDefaults.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace tavix {

class FeatureFlag {
public:
  explicit FeatureFlag(std::shared_ptr<const UserDefaults> defaults)
      : defaults_(std::move(defaults)) {}
  // Over the standard user defaults, made once.
  static const FeatureFlag &shared();

  // The store's boolean for the key; false when unset.
  bool isEnabled(std::string_view key) const { return defaults_->boolValue(key); }
  // `defaultValue` when the store holds nothing for the key, else its boolean.
  bool isEnabled(std::string_view key, bool defaultValue) const;
  std::optional<std::string> stringValue(std::string_view key) const {
    return defaults_->stringValue(key);
  }

  bool computerUseCursor() const { return isEnabled("feature/computerUseCursor", true); }
  bool detachComputerUseCursor() const { return isEnabled("feature/detachComputerUseCursor"); }
  bool computerUseAlwaysSimulateClick() const {
    return isEnabled("feature/computerUseAlwaysSimulateClick");
  }
  bool computerUsePIP() const { return isEnabled("feature/computerUsePIP"); }
  bool computerUsePIPOverrideMinimizeButton() const {
    return isEnabled("feature/computerUsePIPOverrideMinimizeButton");
  }
  bool computerUsePersonalInstructionsOverridesBuiltIn() const {
    return isEnabled("feature/computerUsePersonalInstructionsOverridesBuiltIn");
  }
  bool screenshot() const { return isEnabled("feature/screenshot"); }
  bool overrideFogSamplingTexture() const { return isEnabled("feature/overrideFogSamplingTexture"); }
  bool lockedUseAutoUnlock() const { return isEnabled("feature/lockedUseAutoUnlock", false); }
  // Deliberately without the "feature/" prefix: it is a user default of its own.
  bool computerUseAllowForbiddenTargets() const {
    return isEnabled("ComputerUseAllowForbiddenTargets");
  }

private:
  std::shared_ptr<const UserDefaults> defaults_;
};

} // namespace tavix
