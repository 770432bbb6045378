// The device's vendor identifier, as the SDK's modules ask for it.
#pragma once

#include <optional>
#include <string>

// The vendor identifier as an upper-case UUID string; absent when the machine has none.
std::optional<std::string> zrb_identifier_for_vendor();
