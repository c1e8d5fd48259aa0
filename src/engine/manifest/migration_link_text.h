// A symbolic link's text as a manifest entry holds it: absent for everything but links, and one
// pointer wide, because a manifest of a million entries carries this field a million times and
// only a few of them are links.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace corvane {

class MigrationLinkText {
 public:
  MigrationLinkText() = default;
  MigrationLinkText(std::nullopt_t) {}
  MigrationLinkText(std::string text) : text_(std::make_unique<std::string>(std::move(text))) {}
  MigrationLinkText(const char* text) : MigrationLinkText(std::string(text)) {}
  MigrationLinkText(const std::optional<std::string>& text) {
    if (text) text_ = std::make_unique<std::string>(*text);
  }
  MigrationLinkText(const MigrationLinkText& other) : MigrationLinkText(other.optional()) {}
  MigrationLinkText(MigrationLinkText&&) noexcept = default;
  MigrationLinkText& operator=(const MigrationLinkText& other) {
    if (this != &other) text_ = other.text_ ? std::make_unique<std::string>(*other.text_) : nullptr;
    return *this;
  }
  MigrationLinkText& operator=(MigrationLinkText&&) noexcept = default;

  explicit operator bool() const { return text_ != nullptr; }
  bool has_value() const { return text_ != nullptr; }
  const std::string& operator*() const { return *text_; }
  const std::string* operator->() const { return text_.get(); }
  std::string value_or(std::string fallback) const { return text_ ? *text_ : std::move(fallback); }
  std::optional<std::string> optional() const { return text_ ? std::optional<std::string>(*text_) : std::nullopt; }
  void reset() { text_.reset(); }

  friend bool operator==(const MigrationLinkText& a, const MigrationLinkText& b) {
    return a.text_ ? b.text_ && *a.text_ == *b.text_ : !b.text_;
  }
  friend bool operator==(const MigrationLinkText& a, const std::optional<std::string>& b) {
    return a.text_ ? b && *a.text_ == *b : !b;
  }
  friend bool operator==(const MigrationLinkText& a, const std::string& b) { return a.text_ && *a.text_ == b; }
  friend bool operator==(const MigrationLinkText& a, const char* b) { return a.text_ && *a.text_ == b; }

 private:
  std::unique_ptr<std::string> text_;
};

}  // namespace corvane
