#pragma once
// The methods of the appshot mode: each name (aliases included) stands for one request to
// the runtime app, whose response record is the answer's result.

#include "client/ComputerUseClient.h"

#include <nlohmann/json.hpp>
#include <tl/expected.hpp>

#include <string>
#include <string_view>

namespace tavix {

struct AppshotStdioMethod {
  std::string_view requestType;
  // Decodes the request record from `params`, sends it and encodes the response; or the
  // text of why there is none (the decoding error's, or the request's failure).
  tl::expected<nlohmann::json, std::string> (*call)(const ComputerUseClient &client, const nlohmann::json &params);
};

// The method a name stands for, compared exactly; nothing for an unknown name.
const AppshotStdioMethod *findAppshotStdioMethod(std::string_view name);

} // namespace tavix
