#include "client/ResponsibleProcess.h"

#include <vector>

namespace tavix {
namespace {

std::vector<std::string_view> pathComponents(std::string_view path) {
  std::vector<std::string_view> components;
  size_t start = 0;
  while (start <= path.size()) {
    size_t end = path.find('/', start);
    if (end == std::string_view::npos)
      end = path.size();
    if (end > start)
      components.push_back(path.substr(start, end - start));
    start = end + 1;
  }
  return components;
}

} // namespace

std::optional<int32_t> ResponsibleProcess::processIdentifier(int32_t pid) const {
  auto responsible = system_.responsibleProcess(pid);
  if (!responsible || *responsible < 1)
    return std::nullopt;
  return responsible;
}

ResponsibleProcess::Attribution ResponsibleProcess::current() const {
  const int32_t self = system_.currentProcessIdentifier();
  Attribution attribution;
  attribution.processIdentifier = processIdentifier(self);
  attribution.isSelf = attribution.processIdentifier == self;
  if (attribution.processIdentifier)
    attribution.name = name(*attribution.processIdentifier);
  return attribution;
}

std::optional<std::string> ResponsibleProcess::name(int32_t pid) const {
  if (auto localized = system_.localizedName(pid); localized && !localized->empty())
    return localized;
  auto path = system_.executablePath(pid);
  if (!path)
    return std::nullopt;
  if (auto application = enclosingApplicationName(*path))
    return application;
  auto components = pathComponents(*path);
  if (components.empty())
    return std::nullopt;
  return std::string(components.back());
}

// Nested bundles (a helper app inside a host app) name the nearest one: that is the
// executable's own application, which is what the system lists.
std::optional<std::string> ResponsibleProcess::enclosingApplicationName(std::string_view executablePath) {
  auto components = pathComponents(executablePath);
  for (auto it = components.rbegin(); it != components.rend(); ++it) {
    if (it->size() > 4 && it->ends_with(".app"))
      return std::string(it->substr(0, it->size() - 4));
  }
  return std::nullopt;
}

} // namespace tavix
