#include "support/strings_table.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/descriptor_io.h"
#include "support/diagnostic_log.h"

namespace corvane {
namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

// Returns the offset of the first byte that is not part of a well-formed UTF-8 sequence
// (overlong forms, surrogates and values above U+10FFFF included), or npos.
std::size_t firstInvalidUtf8(std::string_view text) {
  std::size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    char32_t value = 0;
    char32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
      length = 2, value = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, value = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, value = lead & 0x07, minimum = 0x10000;
    } else {
      return i;
    }
    if (i + length > text.size()) return i;
    for (std::size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) return i;
      value = (value << 6) | (next & 0x3F);
    }
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return i;
    i += length;
  }
  return std::string_view::npos;
}

void appendUtf8(std::string& out, char32_t value) {
  if (value < 0x80) {
    out.push_back(static_cast<char>(value));
  } else if (value < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (value >> 6)));
    out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
  } else if (value < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (value >> 12)));
    out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (value >> 18)));
    out.push_back(static_cast<char>(0x80 | ((value >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((value >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (value & 0x3F)));
  }
}

bool isBareWordCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '$' ||
         c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

class Parser {
 public:
  explicit Parser(std::string_view text) : text_(text) {}

  std::vector<StringsTable::Entry> entries() {
    std::vector<StringsTable::Entry> result;
    skipSpaceAndComments();
    while (!atEnd()) {
      StringsTable::Entry entry;
      entry.line = line_;
      entry.key = readString("a key");
      skipSpaceAndComments();
      if (peek() == '=') {
        advance();
        skipSpaceAndComments();
        entry.text = readString("a text");
        skipSpaceAndComments();
      } else {
        // The short form `"key";` gives the key as its own text.
        entry.text = entry.key;
      }
      if (peek() != ';') fail("expected ';' after the entry");
      advance();
      result.push_back(std::move(entry));
      skipSpaceAndComments();
    }
    return result;
  }

 private:
  bool atEnd() const { return position_ >= text_.size(); }
  char peek(std::size_t ahead = 0) const { return position_ + ahead < text_.size() ? text_[position_ + ahead] : '\0'; }
  char advance() {
    const char c = text_[position_++];
    if (c == '\n') ++line_;
    return c;
  }
  [[noreturn]] void fail(const std::string& reason) const { throw StringsFormatError(line_, reason); }

  void skipSpaceAndComments() {
    while (!atEnd()) {
      const char c = peek();
      if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
        advance();
      } else if (c == '/' && peek(1) == '*') {
        const std::size_t startLine = line_;
        advance(), advance();
        while (!(peek() == '*' && peek(1) == '/')) {
          if (atEnd()) throw StringsFormatError(startLine, "comment is never closed");
          advance();
        }
        advance(), advance();
      } else if (c == '/' && peek(1) == '/') {
        while (!atEnd() && peek() != '\n') advance();
      } else {
        return;
      }
    }
  }

  std::string readString(const char* what) {
    if (peek() == '"') return readQuoted();
    std::string word;
    while (!atEnd() && isBareWordCharacter(peek())) word.push_back(advance());
    if (word.empty()) fail(fmt::format("expected {}", what));
    return word;
  }

  char32_t readHexUnit() {
    char32_t value = 0;
    for (int i = 0; i < 4; ++i) {
      const char c = peek();
      int digit = -1;
      if (c >= '0' && c <= '9') digit = c - '0';
      if (c >= 'a' && c <= 'f') digit = c - 'a' + 10;
      if (c >= 'A' && c <= 'F') digit = c - 'A' + 10;
      if (digit < 0) fail("\\u needs four hexadecimal digits");
      advance();
      value = value * 16 + static_cast<char32_t>(digit);
    }
    return value;
  }

  char32_t readUnicodeEscape() {
    const char32_t unit = readHexUnit();
    if (unit >= 0xDC00 && unit <= 0xDFFF) fail("\\u escape holds a lone low surrogate");
    if (unit < 0xD800 || unit > 0xDBFF) {
      if (unit == 0) fail("\\u0000 is not allowed in a text");
      return unit;
    }
    // A character beyond the basic plane is written as two UTF-16 escapes.
    if (peek() != '\\' || (peek(1) != 'u' && peek(1) != 'U')) fail("\\u escape holds a lone high surrogate");
    advance(), advance();
    const char32_t low = readHexUnit();
    if (low < 0xDC00 || low > 0xDFFF) fail("\\u escape holds a lone high surrogate");
    return 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
  }

  std::string readQuoted() {
    const std::size_t startLine = line_;
    advance();  // opening quote
    std::string value;
    while (true) {
      if (atEnd()) throw StringsFormatError(startLine, "text is never closed with '\"'");
      const char c = advance();
      if (c == '"') return value;
      if (c != '\\') {
        value.push_back(c);
        continue;
      }
      if (atEnd()) throw StringsFormatError(startLine, "text is never closed with '\"'");
      const char escaped = advance();
      switch (escaped) {
        case '"':
          value.push_back('"');
          break;
        case '\\':
          value.push_back('\\');
          break;
        case '\'':
          value.push_back('\'');
          break;
        case 'n':
          value.push_back('\n');
          break;
        case 't':
          value.push_back('\t');
          break;
        case 'r':
          value.push_back('\r');
          break;
        case 'u':
        case 'U':
          appendUtf8(value, readUnicodeEscape());
          break;
        default:
          fail(fmt::format("unknown escape '\\{}'", escaped));
      }
    }
  }

  std::string_view text_;
  std::size_t position_ = 0;
  std::size_t line_ = 1;
};

}  // namespace

StringsFormatError::StringsFormatError(std::size_t line, const std::string& reason)
    : std::runtime_error(fmt::format("line {}: {}", line, reason)), line_(line) {}

StringsTable StringsTable::parse(std::string_view contents) {
  if (contents.substr(0, kByteOrderMark.size()) == kByteOrderMark) contents.remove_prefix(kByteOrderMark.size());
  if (const auto bad = firstInvalidUtf8(contents); bad != std::string_view::npos) {
    std::size_t line = 1;
    for (std::size_t i = 0; i < bad; ++i) line += contents[i] == '\n' ? 1 : 0;
    throw StringsFormatError(line, "not valid UTF-8");
  }
  StringsTable table;
  table.entries_ = Parser(contents).entries();
  for (std::size_t i = 0; i < table.entries_.size(); ++i) table.index_[table.entries_[i].key] = i;
  return table;
}

std::optional<StringsTable> StringsTable::load(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    logWarning(fmt::format("String table {} can't be opened: {}", path, std::strerror(errno)));
    return std::nullopt;
  }
  std::string contents;
  if (!readToEnd(fd, contents)) {
    const int error = errno;
    ::close(fd);
    logWarning(fmt::format("String table {} can't be read: {}", path, std::strerror(error)));
    return std::nullopt;
  }
  ::close(fd);
  try {
    return parse(contents);
  } catch (const StringsFormatError& error) {
    logWarning(fmt::format("String table {} is malformed and is ignored ({})", path, error.what()));
    return std::nullopt;
  }
}

std::optional<std::string_view> StringsTable::text(std::string_view key) const {
  const auto found = index_.find(std::string(key));
  if (found == index_.end()) return std::nullopt;
  return std::string_view(entries_[found->second].text);
}

}  // namespace corvane
