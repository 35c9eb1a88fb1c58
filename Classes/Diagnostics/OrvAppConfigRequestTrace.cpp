#include "OrvAppConfigRequestTrace.h"

#include <algorithm>
#include <boost/json.hpp>
#include <cstdio>

#include "OrvAppConfigService.h"

namespace {

std::string milliseconds(std::chrono::microseconds duration) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f ms", static_cast<double>(duration.count()) / 1000.0);
  return text;
}

std::string errorText(const OrvError& error) {
  return error.domain() + " " + std::to_string(error.code()) + ": " + error.localizedDescription();
}

boost::json::value errorJSON(const std::optional<OrvError>& error) {
  if (!error) return nullptr;
  return boost::json::object{
      {"domain", error->domain()}, {"code", error->code()}, {"description", error->localizedDescription()}};
}

}  // namespace

std::string OrvAppConfigRequestTrace::explanation() const {
  std::string text = kind == Kind::autoDiscovery ? "auto-discovery for " : "settings retrieval for ";
  text += subject + ": status " + std::to_string(status) + " (" + OrvAppConfigService::descriptionForCompletionStatus(status) +
          ") after " + milliseconds(duration) + "\n";
  if (error) text += "  error: " + errorText(*error) + "\n";
  for (const auto& step : steps) {
    text += "  " + milliseconds(step.startedAfter) + "  " + step.name + (step.passed ? ": ok" : ": FAILED");
    if (step.url) text += "  " + *step.url;
    text += "\n      " + step.detail;
    if (step.rule) text += " [rule " + std::to_string(*step.rule) + " " + step.ruleName.value_or("") + "]";
    if (step.error) text += " [" + errorText(*step.error) + "]";
    text += " (" + milliseconds(step.duration) + ")\n";
  }
  return text;
}

std::string OrvAppConfigRequestTrace::JSONString() const {
  boost::json::array stepsJSON;
  for (const auto& step : steps) {
    boost::json::object json{{"step", step.name},
                             {"passed", step.passed},
                             {"detail", step.detail},
                             {"startUs", step.startedAfter.count()},
                             {"durationUs", step.duration.count()}};
    json["url"] = step.url ? boost::json::value(*step.url) : boost::json::value(nullptr);
    json["httpStatus"] = step.httpStatus ? boost::json::value(*step.httpStatus) : boost::json::value(nullptr);
    json["rule"] = step.rule ? boost::json::value(*step.rule) : boost::json::value(nullptr);
    json["ruleName"] = step.ruleName ? boost::json::value(*step.ruleName) : boost::json::value(nullptr);
    json["error"] = errorJSON(step.error);
    stepsJSON.push_back(std::move(json));
  }
  return boost::json::serialize(boost::json::object{{"kind", kind == Kind::autoDiscovery ? "autoDiscovery" : "settingsRetrieval"},
                                                    {"subject", subject},
                                                    {"status", status},
                                                    {"statusName", OrvAppConfigService::descriptionForCompletionStatus(status)},
                                                    {"error", errorJSON(error)},
                                                    {"durationUs", duration.count()},
                                                    {"steps", std::move(stepsJSON)}});
}

namespace orv::detail {

RequestTraceRecorder::RequestTraceRecorder(OrvAppConfigRequestTrace::Kind kind, std::string subject,
                                           std::shared_ptr<OrvAppConfigDiagnosticsDelegate> delegate)
    : delegate_(std::move(delegate)), started_(Clock::now()) {
  trace_.kind = kind;
  trace_.subject = std::move(subject);
}

void RequestTraceRecorder::addStep(OrvAppConfigTraceStep step, Clock::time_point began) {
  const auto ended = Clock::now();
  step.startedAfter = std::chrono::duration_cast<std::chrono::microseconds>(began - started_);
  step.duration = std::chrono::duration_cast<std::chrono::microseconds>(ended - began);
  std::lock_guard lock(mutex_);
  trace_.steps.push_back(std::move(step));
}

std::shared_ptr<const OrvAppConfigRequestTrace> RequestTraceRecorder::finish(OrvAppConfigServiceCompletionStatus status,
                                                                             const std::optional<OrvError>& error) {
  std::lock_guard lock(mutex_);
  auto trace = std::make_shared<OrvAppConfigRequestTrace>(trace_);
  trace->status = status;
  trace->error = error;
  trace->duration = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - started_);
  // Steps of parallel stores arrive in completion order; reading them in start order is easier.
  std::stable_sort(trace->steps.begin(), trace->steps.end(),
                   [](const auto& a, const auto& b) { return a.startedAfter < b.startedAfter; });
  return trace;
}

}  // namespace orv::detail
