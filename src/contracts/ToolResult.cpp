#include "contracts/ToolResult.h"

#include "support/Base64.h"

namespace tavix {

nlohmann::json ToolResultContent::toJSON() const & { return ToolResultContent(*this).toJSON(); }

nlohmann::json ToolResultContent::toJSON() && {
  nlohmann::json json = nlohmann::json::object();
  if (auto *text = std::get_if<Text>(&value)) {
    json["type"] = "text";
    json["text"] = std::move(text->text);
    return json;
  }
  auto &image = std::get<Image>(value);
  json["type"] = "image";
  json["data"] = std::move(image.base64Data);
  json["mimeType"] = std::move(image.mimeType);
  return json;
}

ToolResult ToolResult::text(std::string message) {
  return {{ToolResultContent::text(std::move(message))}, false, std::nullopt};
}

ToolResult ToolResult::error(std::string message, std::optional<ComputerUseFailure> failure) {
  return {{ToolResultContent::text(std::move(message))}, true, std::move(failure)};
}

nlohmann::json ToolResult::toJSON() const & { return ToolResult(*this).toJSON(); }

nlohmann::json ToolResult::toJSON() && {
  nlohmann::json items = nlohmann::json::array();
  for (auto &item : content)
    items.push_back(std::move(item).toJSON());
  nlohmann::json json = {{"content", std::move(items)}};
  if (isError)
    json["isError"] = true;
  return json;
}

namespace {

Decoded<std::optional<std::string>> checkedData(std::optional<std::string> data) {
  if (data && !isStandardBase64(*data))
    return decoding::fail("Expected standard padded base64 for \"data\"");
  return data;
}

} // namespace

Decoded<ComputerUseIPCToolContentBlock>
ComputerUseIPCToolContentBlock::fromJSON(const nlohmann::json &json) {
  auto block = decodeFields<ComputerUseIPCToolContentBlock>(json, "ComputerUseIPCToolContentBlock");
  if (block)
    TAVIX_TRY(block->data, checkedData(std::move(block->data)));
  return block;
}

ToolResultContent ComputerUseIPCToolContentBlock::toToolResultContent() const {
  if (type == "image" && data)
    return ToolResultContent::image(*data, mimeType.value_or("image/png"));
  return ToolResultContent::text(text.value_or(""));
}

nlohmann::json ComputerUseIPCToolResultResponse::toJSON() const {
  nlohmann::json blocks = nlohmann::json::array();
  for (const auto &block : content)
    blocks.push_back(block.toJSON());
  nlohmann::json json = {{"content", std::move(blocks)}, {"isError", isError}};
  if (failure)
    json["failure"] = failure->toJSON();
  return json;
}

Decoded<ComputerUseIPCToolResultResponse>
ComputerUseIPCToolResultResponse::fromJSON(const nlohmann::json &json) {
  return fromJSON(nlohmann::json(json));
}

Decoded<ComputerUseIPCToolResultResponse>
ComputerUseIPCToolResultResponse::fromJSON(nlohmann::json &&json) {
  const nlohmann::json *object;
  TAVIX_TRY(object, decoding::object(json, "ComputerUseIPCToolResultResponse"));
  ComputerUseIPCToolResultResponse response;
  const auto content = json.find("content");
  if (content == json.end())
    return decoding::fail("Missing required key \"content\"");
  if (!content->is_array())
    return decoding::fail("Expected an array for \"content\"");
  for (nlohmann::json &item : *content) {
    // The image data is by far the largest part of a reply: taken out, not copied.
    std::optional<std::string> data;
    if (item.is_object())
      if (const auto found = item.find("data"); found != item.end() && found->is_string()) {
        data = std::move(found->get_ref<std::string &>());
        *found = nullptr;
      }
    ComputerUseIPCToolContentBlock block;
    TAVIX_TRY(block, ComputerUseIPCToolContentBlock::fromJSON(item));
    if (data)
      TAVIX_TRY(block.data, checkedData(std::move(data)));
    response.content.push_back(std::move(block));
  }
  TAVIX_TRY(response.isError, decoding::required<bool>(*object, "isError"));
  TAVIX_TRY(response.failure, decoding::optional<ComputerUseFailure>(*object, "failure"));
  return response;
}

ToolResult ComputerUseIPCToolResultResponse::toToolResult() && {
  ToolResult result{{}, isError, std::move(failure)};
  result.content.reserve(content.size());
  for (auto &block : content) {
    if (block.type == "image" && block.data)
      result.content.push_back(
          ToolResultContent::image(std::move(*block.data), block.mimeType.value_or("image/png")));
    else
      result.content.push_back(block.toToolResultContent());
  }
  return result;
}

} // namespace tavix
