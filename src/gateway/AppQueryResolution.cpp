#include "gateway/AppQueryResolution.h"

#include "gateway/AppInstructionProvider.h"
#include "support/Whitespace.h"

#include <utility>

namespace tavix {
namespace {

// Apps whose usual names the name rules would not recognise, and the identifiers that the
// instructions know them by.
constexpr std::pair<std::string_view, std::string_view> knownAppNames[] = {
    {"music", "com.apple.music"},
    {"iphone mirroring", "com.apple.screencontinuity"},
    {"visual studio code", "com.microsoft.vscode"},
    {"visual studio code - insiders", "com.microsoft.vscodeinsiders"},
    {"google antigravity", "com.google.antigravity"},
    {"windsurf", "com.exafunction.windsurf"},
    {"vscodium", "com.vscodium"},
    {"trae", "com.trae.app"},
};

constexpr std::string_view appSuffix = ".app";

std::string_view withoutAppSuffix(std::string_view name) {
  if (name.size() >= appSuffix.size() &&
      asciiLowercased(name.substr(name.size() - appSuffix.size())) == appSuffix)
    name.remove_suffix(appSuffix.size());
  return name;
}

// "/Applications/Microsoft Excel.app/" names "Microsoft Excel".
std::string_view lastPathComponent(std::string_view path) {
  while (path.size() > 1 && path.back() == '/')
    path.remove_suffix(1);
  if (const size_t slash = path.rfind('/'); slash != std::string_view::npos && slash + 1 < path.size())
    path.remove_prefix(slash + 1);
  return path;
}

} // namespace

std::string normalizedAppQuery(std::string_view query) {
  return asciiLowercased(withoutAppSuffix(trimmedWhitespaceAndNewlines(query)));
}

ResolvedApp resolveAppQuery(std::string_view query) {
  const std::string_view name = withoutAppSuffix(lastPathComponent(trimmedWhitespaceAndNewlines(query)));
  ResolvedApp app{std::nullopt, std::string(name)};
  const std::string normalized = normalizedAppQuery(name);
  // A bundle identifier is recognised by the instructions' own table.
  if (AppInstructionProvider::knowsBundleIdentifier(normalized)) {
    app.bundleIdentifier = normalized;
    return app;
  }
  for (const auto &[knownName, identifier] : knownAppNames)
    if (knownName == normalized)
      app.bundleIdentifier = std::string(identifier);
  return app;
}

std::string deliveryKey(const ResolvedApp &app) {
  if (const auto baseName = AppInstructionProvider::instructionFileBaseName(app.bundleIdentifier, app.name))
    return std::string(*baseName);
  return app.bundleIdentifier ? *app.bundleIdentifier : normalizedAppQuery(app.name);
}

} // namespace tavix
