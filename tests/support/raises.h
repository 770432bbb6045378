// A matcher for calls that raise a ZRBException: EXPECT_THAT(call, ZRBTestRaises("name", reason)),
// where `reason` is a text or a matcher of the reason (anything when left out).
#pragma once

#include <gmock/gmock.h>

#include <string>
#include <string_view>

#include "platform/foundation/exception.h"

template <typename Reason = decltype(testing::_)>
auto ZRBTestRaises(std::string_view name, Reason reason = testing::_) {
  return testing::Throws<ZRBException>(
      testing::AllOf(testing::Property(&ZRBException::name, std::string(name)),
                     testing::Property(&ZRBException::reason, reason)));
}
