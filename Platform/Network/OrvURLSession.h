#pragma once
// The HTTP session the library runs its queries on: GET data tasks with header fields whose
// completion gives body, response (status code and header fields) and transport error.
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "OrvError.h"
#include "OrvTypes.h"
#include "OrvURL.h"

// Header name to value, as a header provider hands them out.
using OrvHTTPHeaderDictionary = std::map<std::string, std::string>;

// Error domain of transport failures; the code is the transport's own (a CURLcode for the curl
// session), the user-info carries its text under OrvLocalizedDescriptionKey.
inline constexpr const char* OrvURLErrorDomain = "com.varnel.OrvNetwork.URLError";
// Code of a task that was cancelled.
inline constexpr std::int64_t OrvURLErrorCancelled = -999;
// Code of a request that had no session to run on.
inline constexpr std::int64_t OrvURLErrorNoSession = -1000;
// Code of a response that arrived but could not be handled for want of memory.
inline constexpr std::int64_t OrvURLErrorOutOfMemory = -1001;

class OrvURLRequest {
 public:
  explicit OrvURLRequest(OrvURL url) : url_(std::move(url)) {}

  const OrvURL& URL() const noexcept { return url_; }
  const std::string& HTTPMethod() const noexcept { return method_; }
  void setHTTPMethod(std::string method) { method_ = std::move(method); }

  // Field names compare case-insensitively; setting a field replaces its value.
  void setValueForHTTPHeaderField(std::optional<std::string> value, std::string_view field);
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;
  const std::vector<std::pair<std::string, std::string>>& allHTTPHeaderFields() const noexcept { return fields_; }

  // Sets every pair of the dictionary as a header field (a field of the same name takes the new value),
  // leaving the other fields already set in place.
  void setHeaders(const OrvHTTPHeaderDictionary& headers);

 private:
  OrvURL url_;
  std::string method_ = "GET";
  std::vector<std::pair<std::string, std::string>> fields_;
};

class OrvHTTPURLResponse {
 public:
  OrvHTTPURLResponse(std::optional<OrvURL> url, std::int64_t statusCode,
                     std::vector<std::pair<std::string, std::string>> headerFields)
      : url_(std::move(url)), statusCode_(statusCode), headerFields_(std::move(headerFields)) {}

  const std::optional<OrvURL>& URL() const noexcept { return url_; }
  std::int64_t statusCode() const noexcept { return statusCode_; }
  const std::vector<std::pair<std::string, std::string>>& allHeaderFields() const noexcept { return headerFields_; }
  // Case-insensitive. A field sent more than once reads as one value, its values joined by ", " in
  // the order received, as HTTP combines repeated fields: a reader never silently sees only one.
  std::optional<std::string> valueForHTTPHeaderField(std::string_view field) const;

 private:
  std::optional<OrvURL> url_;
  std::int64_t statusCode_;
  std::vector<std::pair<std::string, std::string>> headerFields_;
};

// (body or nothing, response or nothing, transport error or nothing). Called exactly once per task,
// never on the thread that called resume() or cancel().
using OrvURLSessionDataTaskCompletionHandler = std::function<void(
    std::optional<OrvData> data, std::shared_ptr<const OrvHTTPURLResponse> response, std::optional<OrvError> error)>;

class OrvURLSessionDataTask {
 public:
  virtual ~OrvURLSessionDataTask() = default;
  virtual void resume() = 0;
  // A task cancelled before it completes completes with an OrvURLErrorCancelled error.
  virtual void cancel() = 0;
  virtual std::uint64_t taskIdentifier() const = 0;
};

class OrvURLSession {
 public:
  virtual ~OrvURLSession() = default;
  virtual std::shared_ptr<OrvURLSessionDataTask> dataTaskWithRequest(
      const OrvURLRequest& request, OrvURLSessionDataTaskCompletionHandler completionHandler) = 0;
  // Takes `task` to run soon on the thread where the session handles its answers, and returns true; or
  // returns false and leaves `task` as it was, when the session has no such thread or has stopped.
  // Work that leads straight to a request then wakes no other thread. The task must not block.
  virtual bool performOnCallbackThread(std::function<void()>& task) {
    (void)task;
    return false;
  }
};
