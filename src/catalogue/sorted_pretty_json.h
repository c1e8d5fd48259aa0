// Writes JSON exactly as the platform encoder of the macOS program does with its "pretty
// printed" and "sorted keys" options, so that both programs produce the same bytes for the same
// records: two-space indentation, " : " after keys, empty containers as "[\n\n]", keys in byte
// order, "/" escaped as "\/", other control characters as lower-case \u escapes, and numbers in
// their shortest form with a trailing ".0" removed.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace corvane {

class JsonEncodingError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Throws JsonEncodingError for text that is not valid UTF-8 and for non-finite numbers.
std::string encodeSortedPrettyJson(const nlohmann::json& value);

// A double in the encoder's form: shortest digits that read back to the same value, decimal
// notation between 1e-4 and 2^53, exponent notation outside, no trailing ".0".
std::string formatJsonDouble(double value);

}  // namespace corvane
