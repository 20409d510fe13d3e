#pragma once

#include <string>
#include <string_view>

namespace zevrant::cli {

// Text of a file as a terminal may show it: control characters, and bytes that are no UTF-8, become "\x1b"
// and so on, so that no name in a model moves the cursor or ends a line.
std::string makeHarmless(std::string_view text);

}  // namespace zevrant::cli
