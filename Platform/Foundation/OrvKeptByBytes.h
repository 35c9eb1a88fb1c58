#pragma once
// Values worked out from some text, found again by that text's exact bytes. For answers
// that come again and again with the same bytes (the signing certificate, the key answer, the JWS
// header, a domain's auto-discover answer, a store's settings answer), where comparing or hashing the
// text costs far less than working the value out again. Other bytes, however close, are another
// entry, so a rotated certificate or a re-signed answer is never mistaken for the old one.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

namespace orv::detail {

// Text longer than this is worked out each time rather than kept: what is kept lives as long as the
// process. The texts meant here are a few kilobytes; an auto-discover answer for a thousand stores is
// about forty. Callers whose value is dear to build check this before building it.
inline constexpr std::size_t kLargestKeptText = 64 * 1024;

// Found through a hash of the text, so that a keeper of one answer per store finds any of a thousand
// as fast as a keeper of four. Bounded by count and, where texts come one per store, by the bytes of
// text held; the oldest goes first once either is passed. Text already held (another thread worked it
// out meanwhile) keeps its first value and its place.
template <class Value>
class KeptByBytes {
 public:
  explicit KeptByBytes(std::size_t kept, std::size_t keptBytes = SIZE_MAX) : kept_(kept), keptBytes_(keptBytes) {}

  std::optional<Value> find(std::string_view text) const {
    std::lock_guard lock(mutex_);
    const auto found = entries_.find(text);
    if (found == entries_.end()) return std::nullopt;
    return found->second;
  }

  void keep(std::string_view text, const Value& value) {
    if (text.size() > kLargestKeptText || text.size() > keptBytes_) return;
    std::lock_guard lock(mutex_);
    if (entries_.find(text) != entries_.end()) return;
    const auto entry = entries_.emplace(std::string(text), value).first;
    order_.push_back(&entry->first);
    bytes_ += text.size();
    while (entries_.size() > kept_ || bytes_ > keptBytes_) {
      const std::string* oldest = order_.front();
      order_.pop_front();
      bytes_ -= oldest->size();
      entries_.erase(entries_.find(std::string_view(*oldest)));
    }
  }

 private:
  struct Hash {
    using is_transparent = void;
    std::size_t operator()(std::string_view text) const noexcept { return std::hash<std::string_view>{}(text); }
  };

  const std::size_t kept_;
  const std::size_t keptBytes_;
  mutable std::mutex mutex_;
  std::unordered_map<std::string, Value, Hash, std::equal_to<>> entries_;
  // The keys in the order they came; the map's nodes stay where they are until erased.
  std::deque<const std::string*> order_;
  std::size_t bytes_ = 0;
};

}  // namespace orv::detail
