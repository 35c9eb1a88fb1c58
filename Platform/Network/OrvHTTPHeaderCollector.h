#pragma once
// The header fields of one HTTP exchange, collected line by line as the transport hands them over.
// Only the final response's fields are kept (a redirect hop's or an interim 1xx's are dropped when
// the next status line begins; trailers after the header block are ignored), within a bound on their
// count and bytes, and a line that could be read two ways is refused: a NUL, a bare CR, an obsolete
// folded line, a line without a name. Linear in what the server sends, whatever it sends.
#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace orv::detail {

class HTTPHeaderCollector {
 public:
  enum class Refusal { tooManyFields, tooManyBytes, malformed, outOfMemory };
  struct Refused {
    Refusal kind;
    // What was wrong, for the transport error's text; empty only when even that could not be stored.
    std::string reason;
  };

  HTTPHeaderCollector(std::size_t maxFields, std::size_t maxBytes) noexcept : maxFields_(maxFields), maxBytes_(maxBytes) {}

  // One line as received, line ending included. False once a line was refused; refusal() says why.
  bool addLine(std::string_view line) noexcept;

  const std::optional<Refused>& refusal() const noexcept { return refusal_; }
  // Any line at all arrived.
  bool receivedAnything() const noexcept { return receivedAnything_; }
  std::vector<std::pair<std::string, std::string>> takeFields() noexcept { return std::move(fields_); }

 private:
  bool refuse(Refusal refusal, std::string reason) noexcept;

  std::size_t maxFields_;
  std::size_t maxBytes_;
  std::vector<std::pair<std::string, std::string>> fields_;
  std::size_t bytes_ = 0;
  bool blockComplete_ = false;
  bool receivedAnything_ = false;
  std::optional<Refused> refusal_;
};

}  // namespace orv::detail
