#include "config/FeatureFlag.h"

namespace tavix {

const FeatureFlag &FeatureFlag::shared() {
  static const FeatureFlag flags(UserDefaults::standard());
  return flags;
}

bool FeatureFlag::isEnabled(std::string_view key, bool defaultValue) const {
  const auto value = defaults_->object(key);
  return value ? UserDefaults::truthValue(*value) : defaultValue;
}

} // namespace tavix
