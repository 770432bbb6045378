// The device's vendor identifier, as the SDK's modules ask for it.
#pragma once

#include <optional>
#include <string>

extern "C" {
// The vendor identifier as an upper-case UUID string (NUL-terminated), or null when the machine has
// none. Exported with C linkage so that a host finds it with dlsym. The text stays valid for the
// life of the process (each distinct answer is kept), so callers neither copy nor free it.
const char* zrb_identifier_for_vendor(void);
}

// The same for C++ callers.
std::optional<std::string> ZRBIdentifierForVendor();
