#pragma once
// The last few values worked out from some text, found again by that text's exact bytes. For answers
// that come again and again with the same bytes (the signing certificate, the key answer, the JWS
// header, a domain's auto-discover answer), where comparing the text costs far less than working the
// value out again. Other bytes, however close, are another entry, so a rotated certificate or a
// re-signed answer is never mistaken for the old one.
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace orv::detail {

// Text longer than this is worked out each time rather than kept: what is kept lives as long as the
// process. The texts meant here are a few kilobytes; an auto-discover answer for a thousand stores is
// about forty. Callers whose value is dear to build check this before building it.
inline constexpr std::size_t kLargestKeptText = 64 * 1024;

template <class Value>
class KeptByBytes {
 public:
  explicit KeptByBytes(std::size_t kept) : kept_(kept) {}

  std::optional<Value> find(std::string_view text) const {
    std::lock_guard lock(mutex_);
    for (const auto& [bytes, value] : entries_) {
      if (bytes == text) return value;
    }
    return std::nullopt;
  }

  // The newest first; the oldest goes once more than `kept` are held. Text already held (another
  // thread worked it out meanwhile) keeps its first value.
  void keep(std::string_view text, const Value& value) {
    if (text.size() > kLargestKeptText) return;
    std::lock_guard lock(mutex_);
    for (const auto& entry : entries_) {
      if (entry.first == text) return;
    }
    entries_.emplace_front(std::string(text), value);
    if (entries_.size() > kept_) entries_.pop_back();
  }

 private:
  const std::size_t kept_;
  mutable std::mutex mutex_;
  std::deque<std::pair<std::string, Value>> entries_;
};

}  // namespace orv::detail
