#pragma once
// The MCP server with the real tool gateway and client over a scripted runtime transport:
// a test hands it "tools/call" params and reads the exact answer and the requests that
// reached the runtime app.

#include "fakes/FakeMessageTransport.h"
#include "fakes/ScriptedRequestTransport.h"
#include "gateway/MCPToolGateway.h"
#include "mcp/ComputerUseMCPServer.h"
#include "mcp/JSONRPCResponseChannel.h"

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace tavix::test {

class ToolCallHarness {
public:
  explicit ToolCallHarness(MCPServerMode mode = MCPServerMode::computerUse, std::filesystem::path userInstructions = {},
                           ComputerUseMCPServer::Options options = {})
      : runtime_(new ScriptedRequestTransport()),
        client_(std::make_shared<ComputerUseClient>(std::unique_ptr<ComputerUseRequestTransport>(runtime_))),
        server_(mode,
                std::make_shared<MCPToolGateway>(mode, client_, AppInstructionProvider(std::move(userInstructions)),
                                                 [this](const char *name) { return environment(name); }),
                client_, std::move(options)),
        toolsCall_(server_.methods().at("tools/call")) {}

  ScriptedRequestTransport &runtime() { return *runtime_; }
  ComputerUseMCPServer &server() { return server_; }
  // What the gateway reads for an environment variable; none unless set here.
  void setEnvironment(const std::string &name, std::optional<std::string> value) {
    std::lock_guard guard(environmentLock_);
    environment_[name] = std::move(value);
  }

  // Runs one "tools/call" on the calling thread and returns its answer, or nothing for a
  // notification (`id` absent).
  std::optional<std::string> call(const nlohmann::json &params, std::optional<JSONRPCId> id = JSONRPCId(1)) {
    FakeMessageTransport output;
    toolsCall_({"2.0", id, "tools/call", params}, JSONRPCReply(id, "tools/call", std::make_shared<JSONRPCResponseChannel>(output)));
    auto sent = output.takeSent();
    return sent.empty() ? std::nullopt : std::optional<std::string>(sent.at(0));
  }
  // The "result" object of the answer to a call with id 1.
  nlohmann::json result(const nlohmann::json &params) { return nlohmann::json::parse(*call(params)).at("result"); }

private:
  std::optional<std::string> environment(const std::string &name) {
    std::lock_guard guard(environmentLock_);
    return environment_[name];
  }

  ScriptedRequestTransport *runtime_; // owned by the client
  std::mutex environmentLock_;
  std::map<std::string, std::optional<std::string>> environment_;
  std::shared_ptr<ComputerUseClient> client_;
  ComputerUseMCPServer server_;
  JSONRPCDispatcher::Handler toolsCall_;
};

// A runtime reply with one text item, and the result the host reads from it.
inline const std::string textReply = R"({"content":[{"type":"text","text":"done"}],"isError":false})";
inline const std::string doneResult = R"({"content":[{"text":"done","type":"text"}]})";

// The answer to request 1 with `result` as its result.
inline std::string answer(const std::string &result) { return R"({"id":1,"jsonrpc":"2.0","result":)" + result + "}"; }

} // namespace tavix::test
