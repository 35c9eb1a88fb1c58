#pragma once
// The typed form of one store's settings answer. The parser judges nothing about content: a field that
// is missing or of the wrong JSON type is left empty, and the workflows decide whether the record is
// usable. notValidBefore/notValidAfter follow iat/exp through their setters and are never archived.
#include <boost/json/object.hpp>
#include <memory>
#include <optional>

#include "OrvAppConfigSettingsChannel.h"
#include "OrvAppConfigSettingsKaleth.h"
#include "OrvAppConfigSettingsURL.h"
#include "OrvError.h"
#include "OrvKeyedArchiver.h"
#include "OrvNumber.h"
#include "OrvTypes.h"

class OrvAppConfigSettingsRecord : public OrvSecureCoding {
 public:
  OrvAppConfigSettingsRecord() = default;

  // exp and iat are both numbers of seconds since 1970; the dates follow from them.
  static std::shared_ptr<OrvAppConfigSettingsRecord> initWithKaleth(std::shared_ptr<OrvAppConfigSettingsKaleth> kaleth,
                                                                    std::shared_ptr<OrvAppConfigSettingsURL> url,
                                                                    std::shared_ptr<OrvAppConfigSettingsChannel> settingsChannel,
                                                                    std::optional<OrvNumber> expiry,
                                                                    std::optional<OrvNumber> notValidBefore);
  static std::shared_ptr<OrvAppConfigSettingsRecord> initWithJSONDictionary(const boost::json::object* jsonDictionary);
  // nullptr and an error of OrvAppConfigSettingsRecordErrorDomain, code 0, for a body whose top level is
  // not a JSON object (including bytes that are not JSON at all); on success the error is set to nothing.
  static std::shared_ptr<OrvAppConfigSettingsRecord> createFromData(const OrvData& data, std::optional<OrvError>* error);

  const std::shared_ptr<OrvAppConfigSettingsKaleth>& kaleth() const noexcept { return kaleth_; }
  void setKaleth(std::shared_ptr<OrvAppConfigSettingsKaleth> kaleth) { kaleth_ = std::move(kaleth); }
  const std::shared_ptr<OrvAppConfigSettingsURL>& url() const noexcept { return url_; }
  void setUrl(std::shared_ptr<OrvAppConfigSettingsURL> url) { url_ = std::move(url); }
  const std::shared_ptr<OrvAppConfigSettingsChannel>& settingsChannel() const noexcept { return settingsChannel_; }
  void setSettingsChannel(std::shared_ptr<OrvAppConfigSettingsChannel> channel) { settingsChannel_ = std::move(channel); }

  const std::optional<OrvNumber>& exp() const noexcept { return exp_; }
  // Also resets notValidAfter (nothing for nothing).
  void setExp(std::optional<OrvNumber> exp);
  const std::optional<OrvNumber>& iat() const noexcept { return iat_; }
  // Also resets notValidBefore (nothing for nothing).
  void setIat(std::optional<OrvNumber> iat);

  const std::optional<OrvDate>& notValidBefore() const noexcept { return notValidBefore_; }
  void setNotValidBefore(std::optional<OrvDate> date) { notValidBefore_ = date; }
  const std::optional<OrvDate>& notValidAfter() const noexcept { return notValidAfter_; }
  void setNotValidAfter(std::optional<OrvDate> date) { notValidAfter_ = date; }

  static constexpr std::string_view orvClassName = "OrvAppConfigSettingsRecord";
  static constexpr bool supportsSecureCoding() noexcept { return true; }
  static std::shared_ptr<OrvAppConfigSettingsRecord> initWithCoder(OrvKeyedUnarchiver& coder);
  std::string_view className() const override { return orvClassName; }
  void encodeWithCoder(OrvKeyedArchiver& coder) const override;

  // Deep and by value, dates included.
  friend bool operator==(const OrvAppConfigSettingsRecord& a, const OrvAppConfigSettingsRecord& b);

 private:
  std::shared_ptr<OrvAppConfigSettingsKaleth> kaleth_;
  std::shared_ptr<OrvAppConfigSettingsURL> url_;
  std::shared_ptr<OrvAppConfigSettingsChannel> settingsChannel_;
  std::optional<OrvNumber> exp_;
  std::optional<OrvNumber> iat_;
  std::optional<OrvDate> notValidBefore_;
  std::optional<OrvDate> notValidAfter_;
};
