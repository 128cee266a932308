#pragma once
// Reading the fields of a record's JSON object, with one rule for every record: a
// required key that is missing fails, an optional key that is missing or null is absent,
// a value of the wrong type fails, and keys the record does not know are ignored.

#include <nlohmann/json.hpp>
#include <tl/expected.hpp>

#include <cmath>
#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

namespace tavix {

// Why a JSON value is not the record it should be; its text names the key.
struct DecodingError {
  std::string description;
  friend bool operator==(const DecodingError &, const DecodingError &) = default;
};

template <typename T> using Decoded = tl::expected<T, DecodingError>;

// The raw values of a string enumeration whose cases are numbered 0, 1, 2, … in the
// order of `RawValues<E>::names`. Each enumeration specialises it beside its definition.
template <typename E> struct RawValues;

template <typename E> std::string_view rawValue(E value) {
  return RawValues<E>::names[static_cast<size_t>(value)];
}

template <typename E> std::optional<E> fromRawValue(std::string_view raw) {
  for (size_t i = 0; i < RawValues<E>::names.size(); ++i)
    if (RawValues<E>::names[i] == raw)
      return static_cast<E>(i);
  return std::nullopt;
}

namespace decoding {

inline tl::unexpected<DecodingError> fail(std::string description) {
  return tl::unexpected(DecodingError{std::move(description)});
}

inline std::string quoted(std::string_view key) {
  std::string text;
  text.reserve(key.size() + 2);
  text.push_back('"');
  text.append(key);
  text.push_back('"');
  return text;
}

// The object itself, or a failure naming the record that expected one.
inline Decoded<const nlohmann::json *> object(const nlohmann::json &value, std::string_view record) {
  if (!value.is_object())
    return fail("Expected an object for " + std::string(record));
  return &value;
}

// A value of one type; records read themselves with their own `fromJSON`.
template <typename T> Decoded<T> value(const nlohmann::json &json, std::string_view key) {
  if constexpr (std::is_same_v<T, std::string>) {
    if (json.is_string())
      return json.get<std::string>();
    return fail("Expected a string for " + quoted(key));
  } else if constexpr (std::is_same_v<T, bool>) {
    if (json.is_boolean())
      return json.get<bool>();
    return fail("Expected a boolean for " + quoted(key));
  } else if constexpr (std::is_same_v<T, double>) {
    if (json.is_number())
      return json.get<double>();
    return fail("Expected a number for " + quoted(key));
  } else if constexpr (std::is_enum_v<T>) {
    if (json.is_string())
      if (const auto parsed = fromRawValue<T>(json.get_ref<const std::string &>()))
        return *parsed;
    return fail("Unknown value for " + quoted(key));
  } else if constexpr (std::is_integral_v<T>) {
    // An integer, or a number without a fraction, that fits the field.
    constexpr auto lowest = std::numeric_limits<T>::min();
    constexpr auto highest = std::numeric_limits<T>::max();
    if (json.is_number_unsigned() && json.get<uint64_t>() <= uint64_t(highest))
      return static_cast<T>(json.get<uint64_t>());
    if (json.is_number_integer() && !json.is_number_unsigned()) {
      const int64_t number = json.get<int64_t>();
      if (number >= 0 ? uint64_t(number) <= uint64_t(highest) : std::is_signed_v<T> && number >= int64_t(lowest))
        return static_cast<T>(number);
    }
    if (json.is_number_float()) {
      // `highest + 1` is a power of two, exact as a double where `highest` may not be.
      const double number = json.get<double>();
      const double pastHighest = std::ldexp(1.0, std::numeric_limits<T>::digits);
      if (std::trunc(number) == number && number >= double(lowest) && number < pastHighest)
        return static_cast<T>(number);
    }
    return fail("Expected an integer in range for " + quoted(key));
  } else {
    return T::fromJSON(json);
  }
}

template <typename T> Decoded<T> required(const nlohmann::json &object, std::string_view key) {
  const auto found = object.find(key);
  if (found == object.end())
    return fail("Missing required key " + quoted(key));
  return value<T>(*found, key);
}

template <typename T>
Decoded<std::optional<T>> optional(const nlohmann::json &object, std::string_view key) {
  const auto found = object.find(key);
  if (found == object.end() || found->is_null())
    return std::optional<T>();
  auto read = value<T>(*found, key);
  if (!read)
    return tl::unexpected(read.error());
  return std::optional<T>(std::move(*read));
}


} // namespace decoding

// Records whose JSON is just their fields list them once, as
//   static constexpr auto fields = std::make_tuple(field("app", &Record::app), …);
// and get both directions from `encodeFields` and `decodeFields`: an optional member is
// optional in JSON, anything else is required.
template <typename Record, typename T> struct Field {
  const char *key;
  T Record::*member;
};
template <typename Record, typename T> constexpr Field<Record, T> field(const char *key, T Record::*member) {
  return {key, member};
}

namespace decoding {

template <typename T> struct IsOptional : std::false_type {};
template <typename T> struct IsOptional<std::optional<T>> : std::true_type {};

template <typename T> nlohmann::json encodeValue(const T &value) {
  if constexpr (requires { value.toJSON(); })
    return value.toJSON();
  else if constexpr (std::is_enum_v<T>)
    return rawValue(value);
  else
    return value;
}

} // namespace decoding

template <typename Record> nlohmann::json encodeFields(const Record &record) {
  nlohmann::json json = nlohmann::json::object();
  std::apply(
      [&](const auto &...fields) {
        [[maybe_unused]] const auto put = [&](const auto &field) {
          const auto &value = record.*(field.member);
          if constexpr (decoding::IsOptional<std::decay_t<decltype(value)>>::value) {
            if (value)
              json[field.key] = decoding::encodeValue(*value);
          } else {
            json[field.key] = decoding::encodeValue(value);
          }
        };
        (put(fields), ...);
      },
      Record::fields);
  return json;
}

template <typename Record>
Decoded<Record> decodeFields(const nlohmann::json &json, std::string_view recordName) {
  if (!json.is_object())
    return decoding::fail("Expected an object for " + std::string(recordName));
  Record record{};
  std::optional<DecodingError> failure;
  std::apply(
      [&](const auto &...fields) {
        [[maybe_unused]] const auto read = [&](const auto &field) {
          if (failure)
            return;
          auto &target = record.*(field.member);
          using Member = std::decay_t<decltype(target)>;
          if constexpr (decoding::IsOptional<Member>::value) {
            auto value = decoding::optional<typename Member::value_type>(json, field.key);
            if (value)
              target = std::move(*value);
            else
              failure = value.error();
          } else {
            auto value = decoding::required<Member>(json, field.key);
            if (value)
              target = std::move(*value);
            else
              failure = value.error();
          }
        };
        (read(fields), ...);
      },
      Record::fields);
  if (failure)
    return tl::unexpected(*failure);
  return record;
}

// Declares the JSON of a record whose JSON is its `fields`.
#define TAVIX_RECORD_JSON(Record)                                                                  \
  nlohmann::json toJSON() const { return encodeFields(*this); }                                    \
  static Decoded<Record> fromJSON(const nlohmann::json &json) {                                    \
    return decodeFields<Record>(json, #Record);                                                    \
  }                                                                                                \
  friend bool operator==(const Record &, const Record &) = default

// Evaluates an expected value into `target`, or returns its error from the enclosing
// function.
#define TAVIX_TRY(target, expression)                                                           \
  do {                                                                                             \
    auto decoded_ = (expression);                                                                  \
    if (!decoded_)                                                                                 \
      return tl::unexpected(decoded_.error());                                                     \
    (target) = std::move(*decoded_);                                                               \
  } while (false)

} // namespace tavix
