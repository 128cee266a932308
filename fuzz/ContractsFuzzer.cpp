// Arbitrary JSON through every response record's decoding and every tool's argument
// reading. Whatever decodes must encode and decode back to an equal record, and every
// action read from arguments must survive its wire form unchanged.

#include "contracts/AppshotContracts.h"
#include "contracts/EventStreamContracts.h"
#include "gateway/ToolArguments.h"
#include "support/JSON.h"

#include <cstdint>
#include <cstdlib>

using nlohmann::json;

namespace {

template <typename Record> void roundTrip(const json &value) {
  const auto decoded = Record::fromJSON(value);
  if (!decoded)
    return;
  const auto again = Record::fromJSON(decoded->toJSON());
  if (!again || !(*again == *decoded))
    abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  const auto value = tavix::parseJSON(std::string_view(reinterpret_cast<const char *>(data), size));
  if (!value)
    return 0;
  using namespace tavix;
  roundTrip<ComputerUseIPCHealthResponse>(*value);
  roundTrip<ComputerUseIPCEmptyResponse>(*value);
  roundTrip<ComputerUseIPCToolResultResponse>(*value);
  roundTrip<ComputerUseIPCEventStreamSessionStatus>(*value);
  roundTrip<ComputerUseIPCAction>(*value);
  roundTrip<ComputerUseIPCAppPerformActionRequest>(*value);
  roundTrip<ComputerUseIPCAppStartFrontmostCaptureRequest>(*value);
  roundTrip<ComputerUseIPCAppNextCaptureUpdateRequest>(*value);
  roundTrip<ComputerUseIPCAppStartFrontmostCaptureResponse>(*value);
  roundTrip<ComputerUseIPCAppshotUpdateEnvelope>(*value);
  if (auto response = ComputerUseIPCToolResultResponse::fromJSON(*value))
    if (!serializeJSON(std::move(*response).toToolResult().toJSON()))
      abort();
  using Reader = Parsed<ToolAction> (*)(const json &);
  for (Reader read : {&readClickArguments, &readPerformSecondaryActionArguments, &readSetValueArguments,
                      &readSelectTextArguments, &readScrollArguments, &readDragArguments,
                      &readPressKeyArguments, &readPasteArguments, &readTypeTextArguments}) {
    const auto action = read(*value);
    if (!action)
      continue;
    // Drag lets NaN and infinities through, which JSON cannot carry: a request holding one
    // is refused when it is written, and is never sent.
    const auto wire = serializeJSON(action->action.toJSON(), NonFiniteNumbers::refuse);
    if (!wire) {
      if (!std::holds_alternative<DragParams>(action->action.params))
        abort();
      continue;
    }
    const auto decoded = ComputerUseIPCAction::fromJSON(json::parse(*wire));
    if (!decoded || !(*decoded == action->action))
      abort();
  }
  return 0;
}
