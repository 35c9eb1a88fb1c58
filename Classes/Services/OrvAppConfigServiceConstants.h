#pragma once
// Exported constants. The differing letter case inside the strings is part of their values: the
// host's feature-flag store is keyed by them.

inline constexpr const char* OrvAppConfigServiceJSONErrorDomain = "com.varnel.OrvAppConfigService.jsonErrorDomain";
inline constexpr const char* OrvAppConfigOperationQueueName = "com.varnel.OrvAppConfigService.operationQueue";
inline constexpr const char* OrvAppConfigServiceFeatureFlagServiceName = "com.varnel.orvappconfigService.featureFlagServiceName";
inline constexpr const char* OrvAppConfigServiceFeatureFlagUseEntireDomainForURLDiscovery =
    "com.varnel.orvappconfigService.featureFlagValue.UseEntireDomainForURLDiscovery";
inline constexpr const char* OrvAppConfigServiceFeatureFlagEnableFeatureChannels =
    "com.varnel.orvappconfigService.featureFlagValue.enableFeatureChannels";
inline constexpr const char* OrvAppConfigSettingsRecordErrorDomain = "com.varnel.orvappconfigservice.OrvAppConfigSettingsRecord";

inline constexpr double OrvAppConfigServiceVersionNumber = 1.0;
extern const unsigned char OrvAppConfigServiceVersionString[];
