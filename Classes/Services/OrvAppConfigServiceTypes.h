#pragma once
// Statuses and block types shared by the service, its contexts and its substitute.
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <unordered_map>
#include <unordered_set>

#include "OrvError.h"
#include "OrvURL.h"

class OrvAppConfigAutoDiscoverRecord;
class OrvAppConfigSettingsRecord;

// First argument of every completion block.
using OrvAppConfigServiceCompletionStatus = std::uint64_t;
inline constexpr OrvAppConfigServiceCompletionStatus OrvAppConfigServiceCompletionStatusSuccess = 0;
inline constexpr OrvAppConfigServiceCompletionStatus OrvAppConfigServiceCompletionStatusInvalidParameters = 1;
inline constexpr OrvAppConfigServiceCompletionStatus OrvAppConfigServiceCompletionStatusAutodiscoveryFailed = 2;
inline constexpr OrvAppConfigServiceCompletionStatus OrvAppConfigServiceCompletionStatusConfigurationRetrievalFailed = 3;

// Result of validating signed payloads, and each payload's stored result.
using OrvPayloadValidationStatus = std::int64_t;
inline constexpr OrvPayloadValidationStatus OrvPayloadValidationStatusSuccess = 0;
inline constexpr OrvPayloadValidationStatus OrvPayloadValidationStatusInvalidJWTParameters = 1;
inline constexpr OrvPayloadValidationStatus OrvPayloadValidationStatusCertificateFetchFailed = 2;
inline constexpr OrvPayloadValidationStatus OrvPayloadValidationStatusPayloadValidationFailed = 3;
inline constexpr OrvPayloadValidationStatus OrvPayloadValidationStatusDateValidationFailed = 4;

// Settings platforms.
inline constexpr std::uint64_t OrvAppConfigPlatformIos = 0;
inline constexpr std::uint64_t OrvAppConfigPlatformMacOS = 1;

using OrvAppConfigStoreURLSet = std::unordered_set<OrvURL>;
// Keyed by the store URL object as the caller gave it.
using OrvAppConfigStoreSettingsDictionary = std::unordered_map<OrvURL, std::shared_ptr<OrvAppConfigSettingsRecord>>;

using OrvAppConfigAutoDiscoveryCompletionBlock =
    std::function<void(OrvAppConfigServiceCompletionStatus status, std::shared_ptr<OrvAppConfigAutoDiscoverRecord> record,
                       std::optional<OrvError> error)>;
using OrvAppConfigSettingsRetrievalCompletionBlock =
    std::function<void(OrvAppConfigServiceCompletionStatus status, std::optional<OrvAppConfigStoreSettingsDictionary> settings,
                       std::optional<OrvError> error)>;
