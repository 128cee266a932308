#pragma once
// What every tool call ends in, and the runtime app's form of it.

#include "contracts/ComputerUseFailure.h"

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace tavix {

// One item of a result: a text, or an image whose bytes stay in the standard padded base64
// the runtime app sent, since they only travel on to the host.
struct ToolResultContent {
  struct Text {
    std::string text;
    friend bool operator==(const Text &, const Text &) = default;
  };
  struct Image {
    std::string base64Data;
    std::string mimeType;
    friend bool operator==(const Image &, const Image &) = default;
  };
  std::variant<Text, Image> value;

  static ToolResultContent text(std::string text) { return {Text{std::move(text)}}; }
  static ToolResultContent image(std::string base64Data, std::string mimeType) {
    return {Image{std::move(base64Data), std::move(mimeType)}};
  }
  nlohmann::json toJSON() const &;
  // Moves the texts and image data into the JSON value instead of copying them.
  nlohmann::json toJSON() &&;
  friend bool operator==(const ToolResultContent &, const ToolResultContent &) = default;
};

struct ToolResult {
  std::vector<ToolResultContent> content;
  bool isError = false;
  std::optional<ComputerUseFailure> failure;

  static ToolResult text(std::string message);
  static ToolResult error(std::string message, std::optional<ComputerUseFailure> failure);
  // The "result" of a tools/call answer: "content", and "isError" only when true. The
  // failure stays out.
  nlohmann::json toJSON() const &;
  // As above, moving the content into the value: a screenshot is not copied.
  nlohmann::json toJSON() &&;
  friend bool operator==(const ToolResult &, const ToolResult &) = default;
};

// One content item as the runtime app sends it.
struct ComputerUseIPCToolContentBlock {
  std::string type;
  std::optional<std::string> text;
  std::optional<std::string> data; // base64, as sent
  std::optional<std::string> mimeType;

  using R = ComputerUseIPCToolContentBlock;
  static constexpr auto fields =
      std::make_tuple(field("type", &R::type), field("text", &R::text), field("data", &R::data),
                      field("mimeType", &R::mimeType));
  nlohmann::json toJSON() const { return encodeFields(*this); }
  // As its fields, with "data" required to be standard padded base64.
  static Decoded<ComputerUseIPCToolContentBlock> fromJSON(const nlohmann::json &json);
  friend bool operator==(const R &, const R &) = default;
  // An image with data is an image ("image/png" without a type); anything else is text,
  // empty when the block has none.
  ToolResultContent toToolResultContent() const;
};

struct ComputerUseIPCToolResultResponse {
  std::vector<ComputerUseIPCToolContentBlock> content;
  bool isError = false;
  std::optional<ComputerUseFailure> failure;

  nlohmann::json toJSON() const;
  static Decoded<ComputerUseIPCToolResultResponse> fromJSON(const nlohmann::json &json);
  // Decodes a reply, taking its large texts instead of copying them.
  static Decoded<ComputerUseIPCToolResultResponse> fromJSON(nlohmann::json &&json);
  ToolResult toToolResult() &&;
  friend bool operator==(const ComputerUseIPCToolResultResponse &,
                         const ComputerUseIPCToolResultResponse &) = default;
};

} // namespace tavix
