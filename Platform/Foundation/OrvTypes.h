#pragma once
// Value types the library borrows from the platform: raw bytes, dates, nullable values.
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

// Raw bytes as received or sent (a response body, a payload). std::nullopt stands for "no data",
// which is not the same as empty data.
using OrvData = std::string;

// An instant with sub-second precision, as the platform date type.
using OrvDate = std::chrono::system_clock::time_point;

// Seconds since 1970-01-01 00:00:00 UTC to a date; fractions are kept to the clock's precision.
OrvDate OrvDateFromTimeIntervalSince1970(double seconds);
double OrvTimeIntervalSince1970(OrvDate date);

// ISO 8601 in UTC with milliseconds when there are any, e.g. 2026-11-22T07:05:56Z.
std::string OrvDateISO8601String(OrvDate date);
