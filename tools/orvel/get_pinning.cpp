#include "get_pinning.h"

#include <chrono>
#include <cstdint>
#include <span>
#include <vector>

#include "commands.h"
#include "platform/foundation/exception.h"
#include "platform/foundation/json_serialization.h"
#include "platform/foundation/property_list_serialization.h"

namespace {

// Property lists start with "bplist" or an XML tag; everything else is taken for JSON.
ZRBValue decode(const std::string& contents) {
  std::size_t start = contents.find_first_not_of(" \t\r\n");
  bool plist = contents.starts_with("bplist") || (start != std::string::npos && contents[start] == '<');
  if (plist) {
    auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size());
    return ZRBPropertyListSerialization::propertyListWithData(bytes, ZRBPropertyListImmutable, nullptr,
                                                              nullptr);
  }
  return ZRBJSONSerialization::JSONObjectWithData(contents, {}, nullptr);
}

// The configuration with swizzling on, so that orvel's own session is covered.
ZRBValue withSwizzling(const ZRBValue& configuration) {
  std::vector<ZRBDictionaryEntry> entries;
  for (const auto& entry : configuration.entries()) {
    if (entry.first.isString() && entry.first.stringView() == kZRB_PGDSwizzleNetworkDelegates) continue;
    entries.push_back(entry);
  }
  entries.emplace_back(ZRBValue(kZRB_PGDSwizzleNetworkDelegates), ZRBValue(true));
  return ZRBValue::dictionary(std::move(entries));
}

}  // namespace

std::unique_ptr<OrvelGetPinning> OrvelGetPinning::setUp(const std::string& path, std::string& error) {
  auto contents = orvelReadFile(path);
  if (!contents) {
    error = "--pinning-config " + path + ": cannot read it";
    return nullptr;
  }
  ZRBValue configuration = decode(*contents);
  if (configuration.isDictionary() && configuration["PGDConfiguration"].isDictionary())
    configuration = configuration["PGDConfiguration"];
  if (!configuration.isDictionary()) {
    error = "--pinning-config " + path + ": no pinning configuration (a JSON or property-list map) in it";
    return nullptr;
  }
  std::unique_ptr<OrvelGetPinning> pinning(new OrvelGetPinning());
  pinning->path_ = path;
  try {
    pinning->pinGuard_ = ZRB_PinGuard::initSharedInstanceWithConfiguration(withSwizzling(configuration));
  } catch (const ZRBException& exception) {
    error = "--pinning-config " + path + ": " + exception.reason();
    return nullptr;
  }
  pinning->observerQueue_ = ZRBDispatchQueue::serial("orvel.get.pinning");
  pinning->pinGuard_->setPinningValidatorCallbackQueue(pinning->observerQueue_);
  OrvelGetPinning* self = pinning.get();
  pinning->pinGuard_->setPinningValidatorCallback([self](const ZRB_PGDPinningValidatorResultPtr& result,
                                                         const std::string& noted,
                                                         const ZRB_PGDDomainPolicyPtr&) {
    if (result->finalTrustDecision() != PGDTrustDecisionShouldBlockConnection) return;
    std::lock_guard lock(self->mutex_);
    self->blockedHost_ = result->serverHostname();
    self->notedDomain_ = noted;
    self->noMatchingPin_ = result->evaluationResult() == PGDTrustEvaluationResultFailedNoMatchingPin;
  });
  return pinning;
}

std::string OrvelGetPinning::explainRefusal(const std::string& host) {
  // The validator tells the pin guard on the main queue; the pin guard tells orvel on its queue
  // and hands reports to the reporter queue. Draining them in that order sees everything.
  ZRBDispatch::mainQueue()->sync([] {});
  observerQueue_->sync([] {});
  pinGuard_->pinFailureReporterQueue()->sync([] {});
  pinGuard_->pinFailureReporter()->waitForUploads(std::chrono::seconds(10));
  std::lock_guard lock(mutex_);
  if (!blockedHost_ || *blockedHost_ != host) return "";
  if (!noMatchingPin_) {
    return "refused the connection to " + host + ": its certificate chain is not valid, so the pins that " +
           path_ + " configures for " + notedDomain_ + " cannot be checked";
  }
  return "refused the connection to " + host + ": its certificate chain carries none of the pins that " +
         path_ + " configures for " + notedDomain_;
}
