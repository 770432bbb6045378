// Pieces shared by the test server's files; not for tests.
#pragma once

#include <string>
#include <string_view>

namespace zrb_test_server {

// `text` as a JSON string literal, quotes included.
std::string jsonString(std::string_view text);

bool equalsIgnoringCase(std::string_view a, std::string_view b);

}  // namespace zrb_test_server
