// The pinning configuration parser: its messages and the order of its checks, wrong-typed values,
// the normalised result and its map view, PEM conversion and expiration dates.
#include "pinning/configuration.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "platform/foundation/crypto.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/property_list_serialization.h"
#include "support/test_pki.h"

namespace {

using Entries = std::initializer_list<std::pair<std::string_view, ZRBValue>>;

// The base64 text of `size` bytes of `fill`.
std::string pin(std::uint8_t fill, std::size_t size = 32) {
  return ZRBBase64Encode(std::vector<std::uint8_t>(size, fill));
}

// A policy that passes every check; `changes` are applied on top (an absent value removes the key).
ZRBValue policy(Entries changes = {}) {
  ZRBDictionaryBuilder builder;
  builder.set(kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({kZRB_PGDAlgorithmRsa2048}));
  builder.set(kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(1), pin(2)}));
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

// "example.com" alone, its policy changed by `changes`.
ZRBValue example(Entries changes) { return configuration({{"example.com", policy(changes)}}); }

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

std::string invalidValue(std::string_view key, std::string_view domain = "example.com") {
  return "PinGuard was initialized with an invalid value for " + std::string(key) + " for domain " +
         std::string(domain);
}

std::string tooFewPins(int minimum, std::string_view domain) {
  return "PinGuard was initialized with less than " + std::to_string(minimum) +
         " pins (ie. no backup pins) for domain " + std::string(domain) +
         ". This might brick your App; please review the Getting Started guide in ./docs/getting-started.md";
}

// Where a case holds two mistakes, the one checked first is reported: domains in map order, then
// the keys in the parser's fixed order, whatever order they are written in.
TEST(PinningConfigurationTest, TheFirstMistakeRaisesItsMessage) {
  const std::string pem = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).root.pem();
  const std::string noDomains =
      "PinGuard was initialized with no pinned domains. The configuration format has changed: ensure your "
      "domain pinning policies are under the PGDPinnedDomains key within PGDConfiguration.";
  const std::string badDomain = "PinGuard was initialized with an invalid domain ";
  const std::string badPin = "PinGuard was initialized with an invalid Pin ";
  const std::string exclusion =
      "PinGuard was initialized with PGDExcludeSubdomainFromParentPolicy for domain ";
  const std::string noParent = " but could not find a policy for a parent domain";
  const std::pair<ZRBValue, std::string> cases[] = {
      {ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, false}}), noDomains},
      {configuration({}), noDomains},
      {ZRBValue::dictionary({{kZRB_PGDPinnedDomains, ZRBValue::array({"example.com"})}}), noDomains},
      {ZRBValue::array({}), noDomains},
      {ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, "yes"}}),
       "PinGuard was initialized with an invalid value for PGDSwizzleNetworkDelegates"},
      {configuration({{"example.notatld", ZRBValue(5)}}), badDomain + "example.notatld"},
      {configuration({{std::string_view("example.com\0x", 13), policy()}}),
       badDomain + std::string("example.com\0x", 13)},
      {configuration(
           {{"b.example.com", policy({{kZRB_PGDPublicKeyHashes, ZRBValue()}})}, {"a.notatld", policy()}}),
       tooFewPins(2, "b.example.com")},
      {configuration(
           {{"example.com", ZRBValue::dictionary({{kZRB_PGDPublicKeyHashes, 3},
                                                  {kZRB_PGDExcludeSubdomainFromParentPolicy, true}})}}),
       exclusion + "example.com but detected additional configuration keys"},
      {configuration({{"co.uk", ZRBValue::dictionary(
                                    {{kZRB_PGDPublicKeyAlgorithms, 1}, {kZRB_PGDIncludeSubdomains, true}})}}),
       "PinGuard was initialized with includeSubdomains for a domain suffix co.uk"},
      {example({{kZRB_PGDPublicKeyAlgorithms, ZRBValue()},
                {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({pem, "not a certificate"})}}),
       "Failed to parse PEM certificate"},
      {example({{kZRB_PGDPublicKeyAlgorithms, ZRBValue()}}), invalidValue(kZRB_PGDPublicKeyAlgorithms)},
      {example({{kZRB_PGDReportUris, ZRBValue::array({""})},
                {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({"PGDAlgorithmRSA2048"})}}),
       invalidValue(kZRB_PGDPublicKeyAlgorithms)},
      {example({{kZRB_PGDPublicKeyHashes, ZRBValue::array({"AA=="})},
                {kZRB_PGDReportUris, ZRBValue::array({"https://exa mple.com/"})}}),
       invalidValue(kZRB_PGDReportUris)},
      // Pins are strict base64 of exactly 32 bytes, and duplicates count once.
      {example({{kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(1), pin(2, 31)})}}),
       badPin + pin(2, 31) + " for domain example.com"},
      {example({{kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(2, 33)})}}),
       badPin + pin(2, 33) + " for domain example.com"},
      {example({{kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(1), pin(2) + "\n"})}}),
       badPin + pin(2) + "\n for domain example.com"},
      {example({{kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(1), pin(1)})}}), tooFewPins(2, "example.com")},
      {example({{kZRB_PGDEnforcePinning, false}, {kZRB_PGDPublicKeyHashes, ZRBValue()}}),
       tooFewPins(1, "example.com")},
      // The parent check runs after every domain was read, and finds the parent by plain suffix.
      {configuration(
           {{"x.example.com", excluded()}, {"example.com", policy({{kZRB_PGDPublicKeyHashes, ZRBValue()}})}}),
       tooFewPins(2, "example.com")},
      {configuration({{"example.com", policy()}, {"x.example.com", excluded()}}),
       exclusion + "x.example.com" + noParent},
      {configuration(
           {{"x.example.com", excluded()}, {"example.com", policy({{kZRB_PGDIncludeSubdomains, true}})}}),
       ""},
      {configuration(
           {{"example.com", policy({{kZRB_PGDIncludeSubdomains, true}})}, {"wexample.com", excluded()}}),
       ""},
  };
  for (const auto& [config, reason] : cases) EXPECT_EQ(failureOf(config), reason) << config.description();
}

TEST(PinningConfigurationTest, WrongTypedValuesRaiseTheInvalidValueMessage) {
  const std::pair<std::string_view, ZRBValue> cases[] = {
      {kZRB_PGDIncludeSubdomains, "true"},
      {kZRB_PGDEnforcePinning, ZRBValue::array({})},
      {kZRB_PGDDisableDefaultReportUri, ZRBValue::dictionary({})},
      {kZRB_PGDExpirationDate, ZRBDate{1.9e9}},
      {kZRB_PGDAdditionalTrustAnchors, "-----BEGIN CERTIFICATE-----"},
      {kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({ZRBValue::data("der")})},
      {kZRB_PGDPublicKeyAlgorithms, kZRB_PGDAlgorithmRsa2048},
      {kZRB_PGDPublicKeyAlgorithms, ZRBValue::array({0})},
      {kZRB_PGDReportUris, "https://report.example.com/"},
      {kZRB_PGDPublicKeyHashes, ZRBValue::set({pin(1), pin(2)})},
      // Bytes holding base64 text are no string.
      {kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(1), ZRBValue::data(pin(2))})},
  };
  for (const auto& [key, value] : cases) {
    EXPECT_EQ(failureOf(example({{key, value}})), invalidValue(key)) << key << " = " << value.description();
  }
  for (const ZRBValue& entry : {ZRBValue("policy"), ZRBValue::array({policy()}), ZRBValue::null()}) {
    EXPECT_EQ(failureOf(configuration({{"example.com", entry}})), invalidValue(kZRB_PGDPinnedDomains))
        << entry.description();
  }
}

TEST(PinningConfigurationTest, AcceptedConfigurationIsNormalisedAndItsMapViewRoundTrips) {
  const auto& chain = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256);
  auto parsed = zrb_parsePinGuardConfiguration(ZRBValue::dictionary({
      {kZRB_PGDSwizzleNetworkDelegates, 1},
      {kZRB_PGDPinnedDomains,
       ZRBValue::dictionary({
           {"example.com",
            policy({{kZRB_PGDIncludeSubdomains, true},
                    {kZRB_PGDPublicKeyAlgorithms,
                     ZRBValue::array({kZRB_PGDAlgorithmEcDsaSecp384r1, kZRB_PGDAlgorithmRsa2048,
                                      kZRB_PGDAlgorithmEcDsaSecp384r1})},
                    {kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(1), pin(2), pin(1)})},
                    {kZRB_PGDReportUris, ZRBValue::array({"https://report.example.com/a", "/b"})},
                    {kZRB_PGDAdditionalTrustAnchors,
                     ZRBValue::array({chain.root.pem(), chain.intermediate.pem()})},
                    {kZRB_PGDDisableDefaultReportUri, 1},
                    {kZRB_PGDExpirationDate, "2031-06-15"}})},
           // The exclude key's presence decides, not its value.
           {"x.example.com", ZRBValue::dictionary({{kZRB_PGDExcludeSubdomainFromParentPolicy, false}})},
           // A bare suffix is a valid name as long as it does not include subdomains; one pin is
           // enough when pinning is not enforced.
           {"com",
            policy({{kZRB_PGDEnforcePinning, 0}, {kZRB_PGDPublicKeyHashes, ZRBValue::array({pin(3)})}})},
       })},
  }));
  // Every default filled in, duplicate pins merged, algorithms, URIs and anchors kept in order.
  auto pinBytes = [](std::uint8_t fill) {
    ZRB_PGDPin bytes;
    bytes.fill(fill);
    return bytes;
  };
  auto full = std::make_shared<ZRB_PGDDomainPolicy>(), bare = std::make_shared<ZRB_PGDDomainPolicy>(),
       exclusion = std::make_shared<ZRB_PGDDomainPolicy>();
  full->includeSubdomains = full->disableDefaultReportUri = true;
  full->expirationDate = parsed->pinnedDomains.find("example.com")->expirationDate;  // its value: below
  full->publicKeyAlgorithms = {PGDPublicKeyAlgorithmEcDsaSecp384r1, PGDPublicKeyAlgorithmRsa2048,
                               PGDPublicKeyAlgorithmEcDsaSecp384r1};
  full->publicKeyHashes = {pinBytes(1), pinBytes(2)};
  full->reportUris =
      std::vector{ZRBURL::URLWithString("https://report.example.com/a"), ZRBURL::URLWithString("/b")};
  full->additionalTrustAnchors = std::vector{ZRBSecCertificate::createWithData(chain.root.der()),
                                             ZRBSecCertificate::createWithData(chain.intermediate.der())};
  exclusion->excludeSubdomainFromParentPolicy = true;
  bare->enforcePinning = false;
  bare->publicKeyHashes = {pinBytes(3)};
  bare->publicKeyAlgorithms = {PGDPublicKeyAlgorithmRsa2048};
  ZRB_PGDConfiguration expected{true, {}};
  expected.pinnedDomains.set("example.com", full);
  expected.pinnedDomains.set("x.example.com", exclusion);
  expected.pinnedDomains.set("com", bare);
  EXPECT_TRUE(full->expirationDate);
  EXPECT_TRUE(*parsed == expected) << parsed->toValue().description();

  // The map view: domains in order, keys in the documented order, algorithms as their numbers.
  // Reading it back (flags as booleans, pins as a set of bytes, options only when given) gives the same.
  ZRBValue view = parsed->toValue();
  const ZRBValue& domains = view[kZRB_PGDPinnedDomains];
  std::vector<std::string> order;
  for (const auto& map : {domains, domains["example.com"]}) {
    for (const auto& entry : map.entries()) order.push_back(entry.first.string());
  }
  EXPECT_EQ(order, (std::vector<std::string>{
                       "example.com", "x.example.com", "com", "kPGExcludeSubdomainFromParentPolicy",
                       "PGDIncludeSubdomains", "PGDExpirationDate", "PGDEnforcePinning",
                       "PGDDisableDefaultReportUri", "PGDAdditionalTrustAnchors", "PGDPublicKeyAlgorithms",
                       "PGDReportUris", "PGDPublicKeyHashes"}));
  EXPECT_EQ(domains["x.example.com"], excluded());
  EXPECT_EQ(domains["example.com"][kZRB_PGDPublicKeyAlgorithms], ZRBValue::array({3, 0, 3}));
  auto back = ZRB_PGDConfiguration::fromValue(view);
  ASSERT_TRUE(back);
  EXPECT_TRUE(view[kZRB_PGDSwizzleNetworkDelegates].isBool() && *back == *parsed);
  // Only the normalised shape is read back: the input form, or a policy with a stray key, is refused.
  EXPECT_FALSE(ZRB_PGDConfiguration::fromValue(configuration({{"example.com", policy()}})));
  ZRBDictionaryBuilder stray(domains["com"]);
  stray.set("PGDUnknown", true);
  EXPECT_FALSE(ZRB_PGDConfiguration::fromValue(
      ZRBValue::dictionary({{kZRB_PGDSwizzleNetworkDelegates, false},
                            {kZRB_PGDPinnedDomains, ZRBValue::dictionary({{"com", stray.build()}})}})));
}

TEST(PinningConfigurationTest, PEMConversion) {
  const auto& certificate = ZRBTestPKI::sharedChain(ZRBTestKeyType::RSA2048).leaf;
  const std::string pem = certificate.pem();
  std::string crlf;
  for (char c : pem) crlf += c == '\n' ? std::string("\r\n") : std::string(1, c);
  std::string body = pem.substr(pem.find('\n') + 1);
  body = body.substr(0, body.find("-----END"));
  for (const std::string& text : {pem, "\n\t  " + pem + "  \n\n", crlf, body}) {
    auto converted = certificateFromPEM(text);
    ASSERT_TRUE(converted);
    EXPECT_EQ(converted->data(), certificate.der());
  }
  // The markers are removed only where they stand; text before one, or a second certificate,
  // leaves letters that decode into garbage.
  const auto& other = ZRBTestPKI::sharedChain(ZRBTestKeyType::ECP256).leaf;
  for (const std::string& text : {std::string(), std::string("not base64 at all"), "subject=x\n" + pem,
                                  pem + other.pem(), pem.substr(0, pem.size() / 2)}) {
    EXPECT_EQ(failureOf(example({{kZRB_PGDAdditionalTrustAnchors, ZRBValue::array({text})}})),
              "Failed to parse PEM certificate")
        << text;
  }
}

// The expiration of "example.com" configured with `date` under the time zone `zone`, in seconds.
std::optional<double> expirationOf(std::string_view date, const char* zone = "UTC0") {
  std::optional<std::string> saved;
  if (const char* old = std::getenv("TZ")) saved = old;
  setenv("TZ", zone, 1);
  tzset();
  auto expiration = zrb_parsePinGuardConfiguration(example({{kZRB_PGDExpirationDate, date}}))
                        ->pinnedDomains.find("example.com")
                        ->expirationDate;
  saved ? setenv("TZ", saved->c_str(), 1) : unsetenv("TZ");
  tzset();
  if (!expiration) return std::nullopt;
  return std::chrono::duration<double>(expiration->time_since_epoch()).count();
}

TEST(PinningConfigurationTest, ExpirationDateIsLocalMidnight) {
  constexpr double k2030 = 1893456000;  // 2030-01-01 00:00:00 UTC
  EXPECT_EQ(expirationOf("2030-01-01"), k2030);
  EXPECT_EQ(expirationOf("2030-1-1"), k2030);
  EXPECT_EQ(expirationOf("2028-02-29"), 1835395200);
  EXPECT_EQ(expirationOf("2030-01-01", "JST-9"), k2030 - 9 * 3600);
  // Summer time: midnight of a July day lies 4 hours after UTC midnight in New York's rules.
  EXPECT_EQ(expirationOf("2030-07-01", "EST5EDT,M3.2.0,M11.1.0"), 1909094400 + 4 * 3600);
  for (std::string_view text :
       {"2030-13-45", "2030-02-29", "2030-00-10", "2030-04-31", "", "2030-01-01 ", " 2030-01-01",
        "2030-01-01T00:00:00", "2030/01/01", "20300-01-01", "2030-001-01", "0000-01-01", "yyyy-MM-dd"}) {
    EXPECT_EQ(expirationOf(text), std::nullopt) << text;
  }

  // Days beyond the clock's range stand at its ends rather than overflow it, and survive the map view.
  auto far = zrb_parsePinGuardConfiguration(
      configuration({{"a.example.com", policy({{kZRB_PGDExpirationDate, "9999-12-31"}})},
                     {"b.example.com", policy({{kZRB_PGDExpirationDate, "1-01-01"}})}}));
  EXPECT_EQ(far->pinnedDomains.find("a.example.com")->expirationDate,
            std::chrono::system_clock::time_point::max());
  EXPECT_EQ(far->pinnedDomains.find("b.example.com")->expirationDate,
            std::chrono::system_clock::time_point::min());
  EXPECT_EQ(*ZRB_PGDConfiguration::fromValue(far->toValue()), *far);
}

}  // namespace
