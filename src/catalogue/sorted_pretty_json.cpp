#include "catalogue/sorted_pretty_json.h"

#include <charconv>
#include <cmath>

namespace corvane {
namespace {

constexpr double kLargestExactInteger = 9007199254740992.0;  // 2^53

// Length of the UTF-8 sequence starting at `index`, or 0 when it is malformed (overlong forms,
// surrogates and values above U+10FFFF included).
std::size_t validSequenceLength(const std::string& text, std::size_t index) {
  const auto byte = [&](std::size_t offset) { return static_cast<unsigned char>(text[index + offset]); };
  const unsigned char lead = byte(0);
  std::size_t length = 0;
  unsigned codePoint = 0;
  if (lead < 0x80) return 1;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
    codePoint = lead & 0x1F;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    codePoint = lead & 0x0F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    codePoint = lead & 0x07;
  } else {
    return 0;
  }
  if (index + length > text.size()) return 0;
  for (std::size_t offset = 1; offset < length; ++offset) {
    if ((byte(offset) & 0xC0) != 0x80) return 0;
    codePoint = (codePoint << 6) | (byte(offset) & 0x3F);
  }
  if ((length == 3 && codePoint < 0x800) || (length == 4 && codePoint < 0x10000)) return 0;
  if (codePoint >= 0xD800 && codePoint <= 0xDFFF) return 0;
  if (codePoint > 0x10FFFF) return 0;
  return length;
}

void appendString(std::string& out, const std::string& text) {
  static constexpr char kHex[] = "0123456789abcdef";
  out.push_back('"');
  for (std::size_t index = 0; index < text.size();) {
    const unsigned char c = static_cast<unsigned char>(text[index]);
    if (c >= 0x80) {
      const std::size_t length = validSequenceLength(text, index);
      if (length == 0) throw JsonEncodingError("text is not valid UTF-8");
      out.append(text, index, length);
      index += length;
      continue;
    }
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '/':
        out += "\\/";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c < 0x20) {
          out += "\\u00";
          out.push_back(kHex[c >> 4]);
          out.push_back(kHex[c & 0xF]);
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
    ++index;
  }
  out.push_back('"');
}

void appendIndent(std::string& out, int depth) { out.append(static_cast<std::size_t>(depth) * 2, ' '); }

void appendValue(std::string& out, const nlohmann::json& value, int depth) {
  switch (value.type()) {
    case nlohmann::json::value_t::null:
      out += "null";
      return;
    case nlohmann::json::value_t::boolean:
      out += value.get<bool>() ? "true" : "false";
      return;
    case nlohmann::json::value_t::string:
      appendString(out, value.get_ref<const std::string&>());
      return;
    case nlohmann::json::value_t::number_integer:
      out += std::to_string(value.get<std::int64_t>());
      return;
    case nlohmann::json::value_t::number_unsigned:
      out += std::to_string(value.get<std::uint64_t>());
      return;
    case nlohmann::json::value_t::number_float:
      out += formatJsonDouble(value.get<double>());
      return;
    case nlohmann::json::value_t::array: {
      out += "[\n";
      bool first = true;
      for (const auto& element : value) {
        if (!first) out += ",\n";
        first = false;
        appendIndent(out, depth + 1);
        appendValue(out, element, depth + 1);
      }
      out += "\n";
      appendIndent(out, depth);
      out += "]";
      return;
    }
    case nlohmann::json::value_t::object: {
      out += "{\n";
      bool first = true;
      // The object's map is ordered by std::less<std::string>: byte order, as the encoder sorts.
      for (const auto& [key, element] : value.items()) {
        if (!first) out += ",\n";
        first = false;
        appendIndent(out, depth + 1);
        appendString(out, key);
        out += " : ";
        appendValue(out, element, depth + 1);
      }
      out += "\n";
      appendIndent(out, depth);
      out += "}";
      return;
    }
    case nlohmann::json::value_t::binary:
    case nlohmann::json::value_t::discarded:
      throw JsonEncodingError("value has no JSON form");
  }
}

}  // namespace

std::string formatJsonDouble(double value) {
  if (!std::isfinite(value)) throw JsonEncodingError("number is not finite");
  char buffer[64];
  const double magnitude = std::fabs(value);
  const bool exponent = magnitude >= kLargestExactInteger || (magnitude != 0 && magnitude < 1e-4);
  const auto result = std::to_chars(buffer, buffer + sizeof buffer, value,
                                    exponent ? std::chars_format::scientific : std::chars_format::fixed);
  return std::string(buffer, result.ptr);
}

std::string encodeSortedPrettyJson(const nlohmann::json& value) {
  std::string out;
  appendValue(out, value, 0);
  return out;
}

}  // namespace corvane
