// NullableString: a record's text field, which may be null as distinct from
// empty (a key missing from a reply reads as null). It reads like
// std::optional<std::string>, but takes 16 bytes instead of 40, keeps texts
// of up to 14 bytes inline, and can borrow its bytes from a listing reply
// that its record's owner keeps alive. A hundred thousand records of a large
// folder then cost little more than the reply itself.
//
// Copies never borrow: copying or assigning gives an owned (or inline) text.
// Only the listing reader makes borrowed texts, through borrow(). Not
// thread-safe, like any value; a const one may be read from any thread.
#pragma once

#include <cstdint>
#include <cstring>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace hvfp {

class NullableString {
 public:
  NullableString() noexcept { setNull(); }
  NullableString(std::nullopt_t) noexcept { setNull(); }
  NullableString(std::string_view text) { assign(text); }
  NullableString(const char* text) { assign(std::string_view(text)); }
  NullableString(const std::string& text) { assign(text); }
  NullableString(const std::optional<std::string>& text) {
    if (text)
      assign(*text);
    else
      setNull();
  }
  NullableString(const NullableString& other) { copyFrom(other); }
  NullableString(NullableString&& other) noexcept { stealFrom(other); }
  ~NullableString() { release(); }

  NullableString& operator=(const NullableString& other) {
    if (this != &other) {
      NullableString copy(other);
      release();
      stealFrom(copy);
    }
    return *this;
  }
  NullableString& operator=(NullableString&& other) noexcept {
    if (this != &other) {
      release();
      stealFrom(other);
    }
    return *this;
  }
  NullableString& operator=(std::nullopt_t) noexcept {
    release();
    setNull();
    return *this;
  }

  // A text whose bytes stay owned by someone else, who must keep them alive
  // as long as this value and anything it is moved into.
  static NullableString borrow(std::string_view text) {
    NullableString s;
    s.setExternal(const_cast<char*>(text.data()), text.size(), kBorrowed);
    return s;
  }

  bool has_value() const noexcept { return tag_ != kNull; }
  explicit operator bool() const noexcept { return has_value(); }
  // The text; empty for null.
  std::string_view view() const noexcept {
    if (tag_ == kNull) return {};
    if (tag_ <= kInlineMax) return {reinterpret_cast<const char*>(raw_), tag_};
    return {externalPtr(), externalSize()};
  }
  std::string_view operator*() const noexcept { return view(); }
  // Lets optional-style code ask `text->empty()` and `text->size()`.
  const NullableString* operator->() const noexcept { return this; }
  operator std::optional<std::string>() const { return toOptional(); }
  std::string value_or(std::string_view fallback) const {
    return std::string(has_value() ? view() : fallback);
  }
  std::optional<std::string> toOptional() const {
    if (!has_value()) return std::nullopt;
    return std::string(view());
  }
  size_t size() const noexcept { return view().size(); }
  bool empty() const noexcept { return view().empty(); }
  bool isBorrowed() const noexcept { return tag_ == kBorrowed; }

  friend bool operator==(const NullableString& a, const NullableString& b) {
    return a.has_value() == b.has_value() && a.view() == b.view();
  }
  friend bool operator==(const NullableString& a, std::nullopt_t) { return !a.has_value(); }
  friend bool operator==(const NullableString& a, std::string_view b) {
    return a.has_value() && a.view() == b;
  }
  friend bool operator==(const NullableString& a, const char* b) {
    return a == std::string_view(b);
  }
  friend bool operator==(const NullableString& a, const std::string& b) {
    return a == std::string_view(b);
  }
  friend std::ostream& operator<<(std::ostream& out, const NullableString& s) {
    return s.has_value() ? out << '"' << s.view() << '"' : out << "(null)";
  }

 private:
  static constexpr uint8_t kInlineMax = 14;
  static constexpr uint8_t kOwned = 0xFD;
  static constexpr uint8_t kBorrowed = 0xFE;
  static constexpr uint8_t kNull = 0xFF;

  // Texts are far below 4 GiB: host replies are capped at 256 MiB.
  void setNull() noexcept { tag_ = kNull; }
  void setExternal(char* ptr, size_t size, uint8_t tag) noexcept {
    auto size32 = static_cast<uint32_t>(size);
    std::memcpy(raw_, &ptr, sizeof ptr);
    std::memcpy(raw_ + sizeof ptr, &size32, sizeof size32);
    tag_ = tag;
  }
  char* externalPtr() const noexcept {
    char* ptr;
    std::memcpy(&ptr, raw_, sizeof ptr);
    return ptr;
  }
  uint32_t externalSize() const noexcept {
    uint32_t size;
    std::memcpy(&size, raw_ + sizeof(char*), sizeof size);
    return size;
  }
  void assign(std::string_view text) {
    if (text.size() <= kInlineMax) {
      std::memcpy(raw_, text.data(), text.size());
      tag_ = static_cast<uint8_t>(text.size());
      return;
    }
    char* ptr = new char[text.size()];
    std::memcpy(ptr, text.data(), text.size());
    setExternal(ptr, text.size(), kOwned);
  }
  void copyFrom(const NullableString& other) {
    if (other.has_value())
      assign(other.view());
    else
      setNull();
  }
  // Takes the other's storage as it is (borrowed stays borrowed) and leaves
  // the other null.
  void stealFrom(NullableString& other) noexcept {
    std::memcpy(static_cast<void*>(this), &other, sizeof *this);
    other.setNull();
  }
  void release() noexcept {
    if (tag_ == kOwned) delete[] externalPtr();
  }

  // Inline: the text in raw_[0..13]. External: pointer and 32-bit size.
  alignas(8) unsigned char raw_[15] = {};
  uint8_t tag_;
};

static_assert(sizeof(NullableString) == 16);

}  // namespace hvfp
