#pragma once

#include <cstdio>

#include <nlohmann/json.hpp>

namespace zevrant::cli {

using Json = nlohmann::ordered_json;  // keys in the order in which they are told

// In ASCII alone, so that what a model calls itself moves no cursor here either; readers of JSON get the
// names as they are, with a replacement character for bytes that are no UTF-8.
inline void writeJson(const Json& json) {
    std::printf("%s\n", json.dump(2, ' ', true, Json::error_handler_t::replace).c_str());
}

}  // namespace zevrant::cli
