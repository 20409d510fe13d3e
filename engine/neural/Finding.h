#pragma once

#include <cstdint>
#include <string>

namespace zevrant {

// Something that is wrong with a model file, or not what its maker may think. Names and values are those of
// the file, control characters included: whoever prints them to a terminal makes them harmless.
struct Finding {
    enum Severity : std::uint8_t {
        Error,   // the model is refused, stops at a frame, gives nothing, or gives what nobody can mean
        Warning  // the model runs, and something of it is ignored or surprises
    };

    // As one line: layer "conv": weights [3, 3, 2]: a kernel has 4 axes (byte 120); give it 4 axes
    std::string getText() const;

    Severity severity = Error;
    std::string layer{};         // empty where the model as a whole is meant
    std::string field{};         // as the file format names it, or empty
    std::string value{};         // of the field, where that says something
    std::string problem{};       // what is wrong
    std::string remedy{};        // what would do, where that can be said
    std::int64_t position = -1;  // of the field in bytes, -1 where it is not known
};

}  // namespace zevrant
