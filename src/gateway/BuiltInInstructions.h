#pragma once
// The usage advice compiled into the bridge: one Markdown text per app family, and the
// general guide to the tools. The texts live as files in gateway/instructions/.

#include <optional>
#include <string_view>
#include <vector>

namespace tavix {

// The text of a built-in instruction file by its base name ("Excel", "iPhone Mirroring").
std::optional<std::string_view> builtInInstructions(std::string_view baseName);

// Every base name that has a built-in text, in a fixed order.
const std::vector<std::string_view> &builtInInstructionBaseNames();

// The general guide, put in front of the first result of each host session.
std::string_view computerUseGuide();

} // namespace tavix
