#pragma once
// The typed form of an auto-discover answer. The parser judges nothing about content: a field that is
// missing or of the wrong JSON type is left empty, and the workflows decide whether the record is usable.
#include <boost/json/object.hpp>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "OrvError.h"
#include "OrvTypes.h"
#include "OrvURL.h"

class OrvAppConfigDomain {
 public:
  explicit OrvAppConfigDomain(std::optional<std::string> name) : name_(std::move(name)) {}
  static std::shared_ptr<OrvAppConfigDomain> initWithName(std::optional<std::string> name) {
    return std::make_shared<OrvAppConfigDomain>(std::move(name));
  }
  static std::shared_ptr<OrvAppConfigDomain> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  const std::optional<std::string>& name() const noexcept { return name_; }
  void setName(std::optional<std::string> name) { name_ = std::move(name); }

 private:
  std::optional<std::string> name_;
};

class OrvAppConfigURL {
 public:
  explicit OrvAppConfigURL(std::optional<OrvURL> url) : url_(std::move(url)) {}
  static std::shared_ptr<OrvAppConfigURL> initWithURL(std::optional<OrvURL> url) {
    return std::make_shared<OrvAppConfigURL>(std::move(url));
  }
  static std::shared_ptr<OrvAppConfigURL> initWithJSONDictionary(const boost::json::object* jsonDictionary);

  const std::optional<OrvURL>& url() const noexcept { return url_; }
  void setUrl(std::optional<OrvURL> url) { url_ = std::move(url); }

 private:
  std::optional<OrvURL> url_;
};

using OrvAppConfigURLList = std::vector<std::shared_ptr<OrvAppConfigURL>>;

class OrvAppConfigKaleth {
 public:
  OrvAppConfigKaleth(std::optional<OrvAppConfigURLList> serviceURLs, std::optional<OrvAppConfigURLList> allowedWebStoreURLs)
      : serviceUrls_(std::move(serviceURLs)), allowedWebStoreUrls_(std::move(allowedWebStoreURLs)) {}
  static std::shared_ptr<OrvAppConfigKaleth> initWithServiceURLs(std::optional<OrvAppConfigURLList> serviceURLs,
                                                                 std::optional<OrvAppConfigURLList> allowedWebStoreURLs) {
    return std::make_shared<OrvAppConfigKaleth>(std::move(serviceURLs), std::move(allowedWebStoreURLs));
  }
  static std::shared_ptr<OrvAppConfigKaleth> initWithJSONDictionary(const boost::json::object* jsonDictionary);
  // Every JSON-object element of the array under the key becomes one entry; nothing when the key is
  // missing or not an array.
  static std::optional<OrvAppConfigURLList> appConfigUrlsForKeyName(std::string_view keyName,
                                                                    const boost::json::object* jsonDictionary);

  // nil and empty differ: nil means the answer had no such list.
  const std::optional<OrvAppConfigURLList>& serviceUrls() const noexcept { return serviceUrls_; }
  void setServiceUrls(std::optional<OrvAppConfigURLList> urls) { serviceUrls_ = std::move(urls); }
  const std::optional<OrvAppConfigURLList>& allowedWebStoreUrls() const noexcept { return allowedWebStoreUrls_; }
  void setAllowedWebStoreUrls(std::optional<OrvAppConfigURLList> urls) { allowedWebStoreUrls_ = std::move(urls); }

 private:
  std::optional<OrvAppConfigURLList> serviceUrls_;
  std::optional<OrvAppConfigURLList> allowedWebStoreUrls_;
};

class OrvAppConfigAutoDiscoverRecord {
 public:
  OrvAppConfigAutoDiscoverRecord(std::shared_ptr<OrvAppConfigDomain> domain, std::shared_ptr<OrvAppConfigKaleth> kaleth,
                                 std::optional<OrvDate> notValidBefore, std::optional<OrvDate> notValidAfter)
      : kaleth_(std::move(kaleth)), domain_(std::move(domain)), notValidBefore_(notValidBefore), notValidAfter_(notValidAfter) {}
  static std::shared_ptr<OrvAppConfigAutoDiscoverRecord> initWithDomain(std::shared_ptr<OrvAppConfigDomain> domain,
                                                                        std::shared_ptr<OrvAppConfigKaleth> kaleth,
                                                                        std::optional<OrvDate> notValidBefore,
                                                                        std::optional<OrvDate> notValidAfter) {
    return std::make_shared<OrvAppConfigAutoDiscoverRecord>(std::move(domain), std::move(kaleth), notValidBefore, notValidAfter);
  }
  static std::shared_ptr<OrvAppConfigAutoDiscoverRecord> initWithJSONDictionary(const boost::json::object* jsonDictionary);
  // nullptr and an error for a body that is not a JSON object; on success the error is set to nothing.
  static std::shared_ptr<OrvAppConfigAutoDiscoverRecord> createFromData(const OrvData& data, std::optional<OrvError>* error);

  const std::shared_ptr<OrvAppConfigKaleth>& kaleth() const noexcept { return kaleth_; }
  void setKaleth(std::shared_ptr<OrvAppConfigKaleth> kaleth) { kaleth_ = std::move(kaleth); }
  const std::shared_ptr<OrvAppConfigDomain>& domain() const noexcept { return domain_; }
  void setDomain(std::shared_ptr<OrvAppConfigDomain> domain) { domain_ = std::move(domain); }
  const std::optional<OrvDate>& notValidBefore() const noexcept { return notValidBefore_; }
  void setNotValidBefore(std::optional<OrvDate> date) { notValidBefore_ = date; }
  const std::optional<OrvDate>& notValidAfter() const noexcept { return notValidAfter_; }
  void setNotValidAfter(std::optional<OrvDate> date) { notValidAfter_ = date; }

 private:
  std::shared_ptr<OrvAppConfigKaleth> kaleth_;
  std::shared_ptr<OrvAppConfigDomain> domain_;
  std::optional<OrvDate> notValidBefore_;
  std::optional<OrvDate> notValidAfter_;
};
