// The pinning configuration parser: its messages and their order, wrong-typed values, the
// normalised result and its map view, PEM conversion and expiration dates.
#include "pinning/configuration.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/crypto.h"
#include "platform/exception.h"
#include "platform/property_list_serialization.h"
#include "support/test_pki.h"

namespace {

using Entries = std::initializer_list<std::pair<std::string_view, ZRBValue>>;

// The base64 text of `size` bytes of `fill`.
std::string pin(std::uint8_t fill, std::size_t size = 32) {
  return ZRBBase64Encode(std::vector<std::uint8_t>(size, fill));
}

ZRB_PGDPin pinBytes(std::uint8_t fill) {
  ZRB_PGDPin bytes;
  bytes.fill(fill);
  return bytes;
}

// A policy that passes every check; `changes` are applied on top (an absent value removes the key).
ZRBValue policy(Entries changes = {}) {
  ZRBDictionaryBuilder builder;
  builder.set(kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue(kZRB_PGDAlgorithmRsa2048)}));
  builder.set(kZRB_PGDPublicKeyHashes, ZRBValue::array({ZRBValue(pin(1)), ZRBValue(pin(2))}));
  for (const auto& [key, value] : changes) {
    if (value.isAbsent()) {
      builder.remove(key);
    } else {
      builder.set(key, value);
    }
  }
  return builder.build();
}

ZRBValue configuration(Entries domains) {
  return ZRBValue::dictionary({{kZRB_PGDPinnedDomains, ZRBValue::dictionary(domains)}});
}

ZRBValue excluded() { return ZRBValue::dictionary({{kZRB_PGDExcludeSubdomainFromParentPolicy, true}}); }

// The reason of the configuration exception raised for `config`, or "" when it parses.
std::string failureOf(const ZRBValue& config) {
  try {
    zrb_parsePinGuardConfiguration(config);
  } catch (const ZRBException& exception) {
    EXPECT_EQ(exception.name(), "PinGuard configuration invalid");
    return exception.reason();
  }
  return "";
}

std::string invalidValue(std::string_view key, std::string_view domain) {
  return "PinGuard was initialized with an invalid value for " + std::string(key) + " for domain " +
         std::string(domain);
}

const std::string kNoPinnedDomains =
    "PinGuard was initialized with no pinned domains. The configuration format has changed: ensure your "
    "domain pinning policies are under the PGDPinnedDomains key within PGDConfiguration.";

std::string tooFewPins(int minimum, std::string_view domain) {
  return "PinGuard was initialized with less than " + std::to_string(minimum) +
         " pins (ie. no backup pins) for domain " + std::string(domain) +
         ". This might brick your App; please review the Getting Started guide in ./docs/getting-started.md";
}

struct FailureCase {
  const char* name;
  ZRBValue config;
  std::string reason;
};

TEST(PinningConfigurationTest, EachMistakeRaisesItsMessage) {
  const std::string pem = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).root.pem();
  const FailureCase cases[] = {
      {"no pinned domains", ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, false}}),
       kNoPinnedDomains},
      {"empty pinned domains", configuration({}), kNoPinnedDomains},
      {"pinned domains not a map",
       ZRBValue::dictionary({{kZRB_PGDPinnedDomains, ZRBValue::array({ZRBValue("example.com")})}}),
       kNoPinnedDomains},
      {"configuration not a map", ZRBValue::array({}), kNoPinnedDomains},
      {"unknown suffix", configuration({{"example.notatld", policy()}}),
       "PinGuard was initialized with an invalid domain example.notatld"},
      {"NUL inside the name", configuration({{std::string_view("example.com\0x", 13), policy()}}),
       "PinGuard was initialized with an invalid domain " + std::string("example.com\0x", 13)},
      {"exclusion beside other keys",
       configuration(
           {{"example.com", policy({{kZRB_PGDIncludeSubdomains, true}})},
            {"x.example.com", ZRBValue::dictionary({{kZRB_PGDExcludeSubdomainFromParentPolicy, true},
                                                    {kZRB_PGDEnforcePinning, false}})}}),
       "PinGuard was initialized with PGDExcludeSubdomainFromParentPolicy for domain x.example.com but "
       "detected additional configuration keys"},
      {"include-subdomains on a bare suffix",
       configuration({{"co.uk", policy({{kZRB_PGDIncludeSubdomains, true}})}}),
       "PinGuard was initialized with includeSubdomains for a domain suffix co.uk"},
      {"unreadable anchor",
       configuration(
           {{"example.com", policy({{kZRB_PGDAdditionalTrustAnchors,
                                     ZRBValue::array({ZRBValue(pem), ZRBValue("not a certificate")})}})}}),
       "Failed to parse PEM certificate"},
      {"algorithms missing",
       configuration({{"example.com", policy({{kZRB_PGDPublicKeyAlgorithms, ZRBValue()}})}}),
       invalidValue("PGDPublicKeyAlgorithms", "example.com")},
      {"algorithm name in another case",
       configuration({{"example.com", policy({{kZRB_PGDPublicKeyAlgorithms,
                                               ZRBValue::array({ZRBValue("PGDAlgorithmRSA2048")})}})}}),
       invalidValue("PGDPublicKeyAlgorithms", "example.com")},
      {"report URI that is no URL",
       configuration({{"example.com", policy({{kZRB_PGDReportUris,
                                               ZRBValue::array({ZRBValue("https://exa mple.com/")})}})}}),
       invalidValue("PGDReportUris", "example.com")},
      {"pin of 31 bytes",
       configuration(
           {{"example.com", policy({{kZRB_PGDPublicKeyHashes,
                                     ZRBValue::array({ZRBValue(pin(1)), ZRBValue(pin(2, 31))})}})}}),
       "PinGuard was initialized with an invalid Pin " + pin(2, 31) + " for domain example.com"},
      {"pin of 33 bytes",
       configuration(
           {{"example.com", policy({{kZRB_PGDPublicKeyHashes, ZRBValue::array({ZRBValue(pin(2, 33))})}})}}),
       "PinGuard was initialized with an invalid Pin " + pin(2, 33) + " for domain example.com"},
      {"pin with a stray character",
       configuration(
           {{"example.com", policy({{kZRB_PGDPublicKeyHashes,
                                     ZRBValue::array({ZRBValue(pin(1)), ZRBValue(pin(2) + "\n")})}})}}),
       "PinGuard was initialized with an invalid Pin " + pin(2) + "\n for domain example.com"},
      {"the same pin twice under enforcement",
       configuration({{"example.com", policy({{kZRB_PGDPublicKeyHashes,
                                               ZRBValue::array({ZRBValue(pin(1)), ZRBValue(pin(1))})}})}}),
       tooFewPins(2, "example.com")},
      {"no pins without enforcement",
       configuration({{"example.com",
                       policy({{kZRB_PGDEnforcePinning, false}, {kZRB_PGDPublicKeyHashes, ZRBValue()}})}}),
       tooFewPins(1, "example.com")},
      {"excluded subdomain without a parent",
       configuration({{"example.com", policy()}, {"x.example.com", excluded()}}),
       "PinGuard was initialized with PGDExcludeSubdomainFromParentPolicy for domain x.example.com but could "
       "not find a policy for a parent domain"},
  };
  for (const auto& test : cases) EXPECT_EQ(failureOf(test.config), test.reason) << test.name;
}

// With two mistakes, the one checked first is reported: domains in map order, and within a domain
// the order of the keys' checks, whatever order the keys are written in.
TEST(PinningConfigurationTest, TheFirstMistakeInCheckingOrderIsReported) {
  const FailureCase cases[] = {
      {"earlier domain first",
       configuration(
           {{"b.example.com", policy({{kZRB_PGDPublicKeyHashes, ZRBValue()}})}, {"a.notatld", policy()}}),
       tooFewPins(2, "b.example.com")},
      {"name before policy", configuration({{"example.notatld", ZRBValue(5)}}),
       "PinGuard was initialized with an invalid domain example.notatld"},
      {"exclusion before everything else",
       configuration(
           {{"example.com", ZRBValue::dictionary({{kZRB_PGDPublicKeyHashes, ZRBValue(3)},
                                                  {kZRB_PGDExcludeSubdomainFromParentPolicy, true}})}}),
       "PinGuard was initialized with PGDExcludeSubdomainFromParentPolicy for domain example.com but "
       "detected additional configuration keys"},
      {"suffix check before algorithms",
       configuration({{"com", ZRBValue::dictionary({{kZRB_PGDPublicKeyAlgorithms, ZRBValue(1)},
                                                    {kZRB_PGDIncludeSubdomains, true}})}}),
       "PinGuard was initialized with includeSubdomains for a domain suffix com"},
      {"anchors before algorithms",
       configuration(
           {{"example.com", policy({{kZRB_PGDPublicKeyAlgorithms, ZRBValue()},
                                    {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({ZRBValue("x")})}})}}),
       "Failed to parse PEM certificate"},
      {"algorithms before report URIs",
       configuration(
           {{"example.com", policy({{kZRB_PGDReportUris, ZRBValue::array({ZRBValue("")})},
                                    {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue("RSA")})}})}}),
       invalidValue("PGDPublicKeyAlgorithms", "example.com")},
      {"report URIs before pins",
       configuration({{"example.com", policy({{kZRB_PGDPublicKeyHashes, ZRBValue::array({ZRBValue("AA==")})},
                                              {kZRB_PGDReportUris, ZRBValue::array({ZRBValue("")})}})}}),
       invalidValue("PGDReportUris", "example.com")},
      {"every domain before the parent check",
       configuration(
           {{"x.example.com", excluded()}, {"example.com", policy({{kZRB_PGDPublicKeyHashes, ZRBValue()}})}}),
       tooFewPins(2, "example.com")},
      {"swizzle flag before pinned domains", ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, "yes"}}),
       "PinGuard was initialized with an invalid value for PGDSwizzleNetworkDelegates"},
  };
  for (const auto& test : cases) EXPECT_EQ(failureOf(test.config), test.reason) << test.name;
}

TEST(PinningConfigurationTest, WrongTypedValuesRaiseTheInvalidValueMessage) {
  struct Case {
    std::string_view key;
    ZRBValue value;
  };
  const Case cases[] = {
      {kZRB_PGDIncludeSubdomains, ZRBValue("true")},
      {kZRB_PGDIncludeSubdomains, ZRBValue::null()},
      {kZRB_PGDEnforcePinning, ZRBValue::array({})},
      {kZRB_PGDDisableDefaultReportUri, ZRBValue::dictionary({})},
      {kZRB_PGDExpirationDate, ZRBValue(20300101)},
      {kZRB_PGDExpirationDate, ZRBValue(ZRBDate{1.9e9})},
      {kZRB_PGDAdditionalTrustAnchors, ZRBValue("-----BEGIN CERTIFICATE-----")},
      {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({ZRBValue::data("der")})},
      {kZRB_PGDPublicKeyAlgorithms, ZRBValue(kZRB_PGDAlgorithmRsa2048)},
      {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue(0)})},
      {kZRB_PGDPublicKeyAlgorithms, ZRBValue::null()},
      {kZRB_PGDReportUris, ZRBValue("https://report.example.com/")},
      {kZRB_PGDReportUris, ZRBValue::array({ZRBValue(1)})},
      {kZRB_PGDPublicKeyHashes, ZRBValue(pin(1))},
      {kZRB_PGDPublicKeyHashes, ZRBValue::array({ZRBValue(pin(1)), ZRBValue::data(pin(2))})},
      {kZRB_PGDPublicKeyHashes, ZRBValue::set({ZRBValue(pin(1)), ZRBValue(pin(2))})},
  };
  for (const auto& test : cases) {
    EXPECT_EQ(failureOf(configuration({{"example.com", policy({{test.key, test.value}})}})),
              invalidValue(test.key, "example.com"))
        << test.key << " = " << test.value.description();
  }
  for (const ZRBValue& entry :
       {ZRBValue("policy"), ZRBValue(1), ZRBValue::array({policy()}), ZRBValue::null()}) {
    EXPECT_EQ(failureOf(configuration({{"example.com", entry}})),
              invalidValue("PGDPinnedDomains", "example.com"))
        << entry.description();
  }
}

TEST(PinningConfigurationTest, AcceptedConfigurationIsNormalised) {
  const auto& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  ZRBValue config = ZRBValue::dictionary({
      {kZRB_PGDSwizzleNetworkDelegates, true},
      {kZRB_PGDPinnedDomains,
       ZRBValue::dictionary({
           {"example.com",
            policy(
                {{kZRB_PGDIncludeSubdomains, true},
                 {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({ZRBValue(kZRB_PGDAlgorithmEcDsaSecp384r1),
                                                                ZRBValue(kZRB_PGDAlgorithmRsa2048),
                                                                ZRBValue(kZRB_PGDAlgorithmEcDsaSecp384r1)})},
                 {kZRB_PGDPublicKeyHashes,
                  ZRBValue::array({ZRBValue(pin(1)), ZRBValue(pin(2)), ZRBValue(pin(1))})},
                 {kZRB_PGDReportUris,
                  ZRBValue::array({ZRBValue("https://report.example.com/a"), ZRBValue("/b")})},
                 {kZRB_PGDAdditionalTrustAnchors,
                  ZRBValue::array({ZRBValue(chain.root.pem()), ZRBValue(chain.intermediate.pem())})},
                 {kZRB_PGDDisableDefaultReportUri, 1},
                 {kZRB_PGDExpirationDate, "2030-13-45"}})},
           // The exclude key's presence decides, not its value.
           {"x.example.com", ZRBValue::dictionary({{kZRB_PGDExcludeSubdomainFromParentPolicy, false}})},
           // A bare suffix is a valid name as long as it does not include subdomains.
           {"com", policy({{kZRB_PGDEnforcePinning, 0},
                           {kZRB_PGDPublicKeyHashes, ZRBValue::array({ZRBValue(pin(3))})}})},
       })},
  });
  auto parsed = zrb_parsePinGuardConfiguration(config);
  ASSERT_TRUE(parsed);
  EXPECT_TRUE(parsed->swizzleNetworkDelegates);
  ASSERT_EQ(parsed->pinnedDomains.size(), 3u);
  std::vector<std::string> order;
  for (const auto& entry : parsed->pinnedDomains) order.push_back(entry.first);
  EXPECT_EQ(order, (std::vector<std::string>{"example.com", "x.example.com", "com"}));

  auto example = parsed->pinnedDomains.find("example.com");
  ASSERT_TRUE(example);
  EXPECT_FALSE(example->excludeSubdomainFromParentPolicy);
  EXPECT_TRUE(example->includeSubdomains);
  EXPECT_TRUE(example->enforcePinning);
  EXPECT_TRUE(example->disableDefaultReportUri);
  EXPECT_FALSE(example->expirationDate);
  EXPECT_EQ(
      example->publicKeyAlgorithms,
      (std::vector<PGDPublicKeyAlgorithm>{PGDPublicKeyAlgorithmEcDsaSecp384r1, PGDPublicKeyAlgorithmRsa2048,
                                          PGDPublicKeyAlgorithmEcDsaSecp384r1}));
  EXPECT_EQ(example->publicKeyHashes, (std::set<ZRB_PGDPin>{pinBytes(1), pinBytes(2)}));
  ASSERT_TRUE(example->reportUris);
  ASSERT_EQ(example->reportUris->size(), 2u);
  EXPECT_EQ((*example->reportUris)[0]->absoluteString(), "https://report.example.com/a");
  EXPECT_EQ((*example->reportUris)[1]->absoluteString(), "/b");
  ASSERT_TRUE(example->additionalTrustAnchors);
  ASSERT_EQ(example->additionalTrustAnchors->size(), 2u);
  EXPECT_EQ((*example->additionalTrustAnchors)[0]->data(), chain.root.der());
  EXPECT_EQ((*example->additionalTrustAnchors)[1]->data(), chain.intermediate.der());

  auto excludedPolicy = parsed->pinnedDomains.find("x.example.com");
  ASSERT_TRUE(excludedPolicy);
  EXPECT_TRUE(excludedPolicy->excludeSubdomainFromParentPolicy);

  auto suffix = parsed->pinnedDomains.find("com");
  ASSERT_TRUE(suffix);
  EXPECT_FALSE(suffix->enforcePinning);
  EXPECT_FALSE(suffix->includeSubdomains);
  EXPECT_FALSE(suffix->disableDefaultReportUri);
  EXPECT_FALSE(suffix->reportUris);
  EXPECT_FALSE(suffix->additionalTrustAnchors);
}

TEST(PinningConfigurationTest, ExcludedSubdomainNeedsAnIncludingParent) {
  auto withParent = [](bool includeSubdomains) {
    return configuration({{"x.example.com", excluded()},
                          {"example.com", policy({{kZRB_PGDIncludeSubdomains, includeSubdomains}})}});
  };
  EXPECT_EQ(failureOf(withParent(true)), "");
  EXPECT_EQ(
      failureOf(withParent(false)),
      "PinGuard was initialized with PGDExcludeSubdomainFromParentPolicy for domain x.example.com but could "
      "not find a policy for a parent domain");
  // The parent is found by plain suffix: "wexample.com" excluded under "example.com" passes too.
  EXPECT_EQ(failureOf(configuration({{"example.com", policy({{kZRB_PGDIncludeSubdomains, true}})},
                                     {"wexample.com", excluded()}})),
            "");
}

TEST(PinningConfigurationTest, MapViewHasTheDocumentedShapeAndRoundTrips) {
  const auto& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  auto parsed = zrb_parsePinGuardConfiguration(configuration({
      {"example.com",
       policy({{kZRB_PGDIncludeSubdomains, true},
               {kZRB_PGDExpirationDate, "2031-06-15"},
               {kZRB_PGDReportUris, ZRBValue::array({ZRBValue("https://r.example.com/")})},
               {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({ZRBValue(chain.root.pem())})}})},
      {"x.example.com", excluded()},
      {"example.org",
       policy({{kZRB_PGDPublicKeyHashes, ZRBValue::array({ZRBValue(pin(7)), ZRBValue(pin(8))})}})},
  }));
  ZRBValue view = parsed->toValue();

  EXPECT_EQ(view[kZRB_PGDSwizzleNetworkDelegates], ZRBValue(false));
  EXPECT_TRUE(view[kZRB_PGDSwizzleNetworkDelegates].isBool());
  const ZRBValue& domains = view[kZRB_PGDPinnedDomains];
  EXPECT_EQ(domains["x.example.com"], excluded());

  const ZRBValue& example = domains["example.com"];
  std::vector<std::string> keys;
  for (const auto& entry : example.entries()) keys.push_back(entry.first.string());
  EXPECT_EQ(keys, (std::vector<std::string>{
                      "kPGExcludeSubdomainFromParentPolicy", "PGDIncludeSubdomains", "PGDExpirationDate",
                      "PGDEnforcePinning", "PGDDisableDefaultReportUri", "PGDAdditionalTrustAnchors",
                      "PGDPublicKeyAlgorithms", "PGDReportUris", "PGDPublicKeyHashes"}));
  EXPECT_TRUE(example[kZRB_PGDExpirationDate].isDate());
  EXPECT_EQ(example[kZRB_PGDPublicKeyAlgorithms], ZRBValue::array({ZRBValue(0)}));
  EXPECT_EQ(example[kZRB_PGDPublicKeyHashes],
            ZRBValue::set({ZRBValue::data(pinBytes(1).data(), 32), ZRBValue::data(pinBytes(2).data(), 32)}));
  EXPECT_EQ(example[kZRB_PGDAdditionalTrustAnchors][0].objectAs<ZRBSecCertificate>()->data(),
            chain.root.der());
  EXPECT_EQ(example[kZRB_PGDReportUris][0].objectAs<ZRBURL>()->absoluteString(), "https://r.example.com/");
  // Optional entries are left out when they were not given.
  EXPECT_FALSE(domains["example.org"].contains(kZRB_PGDExpirationDate));
  EXPECT_FALSE(domains["example.org"].contains(kZRB_PGDReportUris));
  EXPECT_FALSE(domains["example.org"].contains(kZRB_PGDAdditionalTrustAnchors));

  auto back = ZRB_PGDConfiguration::fromValue(view);
  ASSERT_TRUE(back);
  EXPECT_EQ(*back, *parsed);

  // Only the normalised shape is read back: the input form, or a policy with a stray key, is refused.
  EXPECT_FALSE(ZRB_PGDConfiguration::fromValue(configuration({{"example.com", policy()}})));
  ZRBDictionaryBuilder stray(domains["example.org"]);
  stray.set("PGDUnknown", true);
  EXPECT_FALSE(ZRB_PGDConfiguration::fromValue(ZRBValue::dictionary(
      {{kZRB_PGDSwizzleNetworkDelegates, false},
       {kZRB_PGDPinnedDomains, ZRBValue::dictionary({{"example.org", stray.build()}})}})));
}

TEST(PinningConfigurationTest, PEMConversion) {
  const auto& certificate = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA2048).leaf;
  const std::string pem = certificate.pem();
  std::string crlf;
  for (char c : pem) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  std::string body = pem.substr(pem.find('\n') + 1);
  body = body.substr(0, body.find("-----END"));
  for (const std::string& text : {pem, "\n\t  " + pem + "  \n\n", crlf, body, "  " + body}) {
    auto converted = certificateFromPEM(text);
    ASSERT_TRUE(converted);
    EXPECT_EQ(converted->data(), certificate.der());
  }
  // The markers are removed only where they stand; text before one, or a second certificate,
  // leaves letters that decode into garbage.
  const auto& other = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).leaf;
  for (const std::string& text : {std::string(), std::string("not base64 at all"), "subject=x\n" + pem,
                                  pem + other.pem(), pem.substr(0, pem.size() / 2)}) {
    try {
      certificateFromPEM(text);
      ADD_FAILURE() << "accepted: " << text;
    } catch (const ZRBException& exception) {
      EXPECT_EQ(exception.name(), "PinGuard configuration invalid");
      EXPECT_EQ(exception.reason(), "Failed to parse PEM certificate");
    }
  }
}

// Sets TZ for the scope of a test and restores it.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) old_ = old;
    setenv("TZ", zone, 1);
    tzset();
  }
  ~ScopedTimeZone() {
    if (old_) {
      setenv("TZ", old_->c_str(), 1);
    } else {
      unsetenv("TZ");
    }
    tzset();
  }

 private:
  std::optional<std::string> old_;
};

std::optional<double> expirationOf(std::string_view date) {
  auto parsed = zrb_parsePinGuardConfiguration(
      configuration({{"example.com", policy({{kZRB_PGDExpirationDate, ZRBValue(date)}})}}));
  auto expiration = parsed->pinnedDomains.find("example.com")->expirationDate;
  if (!expiration) return std::nullopt;
  return std::chrono::duration<double>(expiration->time_since_epoch()).count();
}

TEST(PinningConfigurationTest, ExpirationDateIsLocalMidnight) {
  constexpr double k2030 = 1893456000;  // 2030-01-01 00:00:00 UTC
  {
    ScopedTimeZone zone("UTC0");
    EXPECT_EQ(expirationOf("2030-01-01"), k2030);
    EXPECT_EQ(expirationOf("2030-1-1"), k2030);
    EXPECT_EQ(expirationOf("2028-02-29"), 1835395200);
  }
  {
    ScopedTimeZone zone("JST-9");
    EXPECT_EQ(expirationOf("2030-01-01"), k2030 - 9 * 3600);
  }
  {
    // Summer time: midnight of a July day lies 4 hours after UTC midnight in New York's rules.
    ScopedTimeZone zone("EST5EDT,M3.2.0,M11.1.0");
    EXPECT_EQ(expirationOf("2030-07-01"), 1909094400 + 4 * 3600);
  }
  ScopedTimeZone zone("UTC0");
  // Days beyond the clock's range stand at its ends rather than overflow it.
  auto far = zrb_parsePinGuardConfiguration(
      configuration({{"a.example.com", policy({{kZRB_PGDExpirationDate, "9999-12-31"}})},
                     {"b.example.com", policy({{kZRB_PGDExpirationDate, "1-01-01"}})}}));
  EXPECT_EQ(far->pinnedDomains.find("a.example.com")->expirationDate,
            std::chrono::system_clock::time_point::max());
  EXPECT_EQ(far->pinnedDomains.find("b.example.com")->expirationDate,
            std::chrono::system_clock::time_point::min());
  EXPECT_EQ(*ZRB_PGDConfiguration::fromValue(far->toValue()), *far);

  for (std::string_view text :
       {"2030-13-45", "2030-02-29", "2030-00-10", "2030-04-31", "", "2030-01-01 ", " 2030-01-01",
        "2030-01-01T00:00:00", "2030/01/01", "20300-01-01", "2030-001-01", "0000-01-01", "yyyy-MM-dd"}) {
    EXPECT_EQ(expirationOf(text), std::nullopt) << text;
  }
}

TEST(PinningConfigurationTest, OrvelPrintsTheNormalisedConfigurationOrTheFirstError) {
  auto directory = ZRBTestPKI::makeTemporaryDirectory();
  auto run = [&](const std::string& name, const std::string& contents, std::string& output) {
    std::ofstream(directory / name) << contents;
    std::string command =
        std::string(ORVEL_PROGRAM_PATH) + " pinning-config " + (directory / name).string() + " 2>&1";
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe) return -1;
    char buffer[256];
    output.clear();
    while (size_t n = fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    return pclose(pipe);
  };
  std::string output;
  std::string json =
      "{\"PGDPinnedDomains\": {\"example.com\": {\"PGDPublicKeyAlgorithms\": [\"PGDAlgorithmRsa4096\"],"
      " \"PGDPublicKeyHashes\": [\"" +
      pin(1) + "\", \"" + pin(2) + "\"]}}}";
  EXPECT_EQ(run("good.json", json, output), 0);
  EXPECT_NE(output.find("PGDSwizzleNetworkDelegates: false\n"), std::string::npos) << output;
  EXPECT_NE(output.find("      PGDAlgorithmRsa4096\n"), std::string::npos) << output;
  EXPECT_NE(output.find("      " + pin(2) + "\n"), std::string::npos) << output;

  auto plist = ZRBPropertyListSerialization::dataWithPropertyList(
      ZRBValue::dictionary({{"PGDConfiguration", configuration({{"example.notatld", policy()}})}}),
      ZRBPropertyListBinaryFormat_v1_0);
  ASSERT_TRUE(plist);
  EXPECT_NE(run("Info.plist", std::string(plist->begin(), plist->end()), output), 0);
  EXPECT_NE(output.find("PinGuard was initialized with an invalid domain example.notatld"), std::string::npos)
      << output;
  std::filesystem::remove_all(directory);
}

}  // namespace
