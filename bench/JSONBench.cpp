// The JSON seam against nlohmann alone on the documents that matter for speed: a runtime
// reply carrying a 5 MB base64 screenshot and a 4 MB paste request of prose and code,
// beside a plain memcpy of the same bytes (the floor).

#include "BenchDocuments.h"
#include "contracts/ToolResult.h"
#include "support/JSON.h"

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

namespace tavix {
namespace {

using nlohmann::json;
using namespace bench;

const std::string &document(int64_t which) { return which == 0 ? screenshotReply() : pasteRequest(); }
const char *documentName(int64_t which) { return which == 0 ? "5MB screenshot reply" : "4MB paste request"; }

void BM_Memcpy(benchmark::State &state) {
  const std::string &text = document(state.range(0));
  std::string copy(text.size(), '\0');
  for (auto _ : state) {
    std::memcpy(copy.data(), text.data(), text.size());
    benchmark::DoNotOptimize(copy.data());
    benchmark::ClobberMemory();
  }
  state.SetLabel(documentName(state.range(0)));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void BM_ParseNlohmann(benchmark::State &state) {
  const std::string &text = document(state.range(0));
  for (auto _ : state)
    benchmark::DoNotOptimize(json::parse(text));
  state.SetLabel(documentName(state.range(0)));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void BM_ParseSeam(benchmark::State &state) {
  const std::string &text = document(state.range(0));
  const std::string padded = text + std::string(jsonParsePadding, ' ');
  const std::string_view view = std::string_view(padded).substr(0, text.size());
  for (auto _ : state)
    benchmark::DoNotOptimize(parseJSON(view, JSONInput::padded));
  state.SetLabel(documentName(state.range(0)));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

void BM_DumpNlohmann(benchmark::State &state) {
  const json value = json::parse(document(state.range(0)));
  for (auto _ : state)
    benchmark::DoNotOptimize(value.dump());
  state.SetLabel(documentName(state.range(0)));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document(state.range(0)).size()));
}

void BM_WriteSeam(benchmark::State &state) {
  const json value = json::parse(document(state.range(0)));
  for (auto _ : state)
    benchmark::DoNotOptimize(serializeJSON(value));
  state.SetLabel(documentName(state.range(0)));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document(state.range(0)).size()));
}

// The whole way from the runtime's reply bytes to the tool result.
void BM_DecodeToolResult(benchmark::State &state) {
  const std::string &text = screenshotReply();
  const std::string padded = text + std::string(jsonParsePadding, ' ');
  const std::string_view view = std::string_view(padded).substr(0, text.size());
  for (auto _ : state) {
    auto response = ComputerUseIPCToolResultResponse::fromJSON(std::move(*parseJSON(view, JSONInput::padded)));
    if (!response) {
      state.SkipWithError(response.error().description.c_str());
      break;
    }
    benchmark::DoNotOptimize(std::move(*response).toToolResult());
  }
  state.SetLabel(documentName(0));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}

BENCHMARK(BM_Memcpy)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseNlohmann)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ParseSeam)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DumpNlohmann)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_WriteSeam)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DecodeToolResult)->Unit(benchmark::kMillisecond);

} // namespace
} // namespace tavix
