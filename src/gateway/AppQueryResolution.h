#pragma once
// Which app a "get_app_state" query names, for choosing its instructions. Matching the
// query to a running app is the runtime app's work; with no list of the user's running
// apps here, the query alone names the app: a bundle identifier the instructions know, an
// app name (or the name in an app path), or a well-known app's name that stands for its
// bundle identifier.

#include <optional>
#include <string>
#include <string_view>

namespace tavix {

struct ResolvedApp {
  std::optional<std::string> bundleIdentifier; // lower-cased
  std::string name;                            // as the query gave it, trimmed
  friend bool operator==(const ResolvedApp &, const ResolvedApp &) = default;
};

// Trimmed, lower-cased, without a trailing ".app".
std::string normalizedAppQuery(std::string_view query);

ResolvedApp resolveAppQuery(std::string_view query);

// What remembers that an app's instructions were delivered: the instruction text it gets,
// so that however the query spells the app ("Excel", "Microsoft Excel.app",
// "com.microsoft.excel") the model reads that advice once; for other apps their bundle
// identifier when known, else their normalised name.
std::string deliveryKey(const ResolvedApp &app);

} // namespace tavix
