#include "cli/Text.h"

#include <cstddef>
#include <cstdio>

namespace zevrant::cli {

namespace {

// The bytes of the character that the text starts with, 0 where they are no UTF-8.
std::size_t getLengthOfCharacter(std::string_view text) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(0);
    const std::size_t length = first < 0x80 ? 1 : first < 0xc2 ? 0 : first < 0xe0 ? 2 : first < 0xf0 ? 3 : 4;
    if (first > 0xf4 || length > text.size()) return 0;
    for (std::size_t i = 1; i < length; ++i)
        if ((byteAt(i) & 0xc0) != 0x80) return 0;
    return length;
}

bool isControl(std::string_view character) {
    const auto first = static_cast<unsigned char>(character.front());
    if (character.size() == 1) return first < 0x20 || first == 0x7f;
    return first == 0xc2 && static_cast<unsigned char>(character[1]) < 0xa0;
}

}  // namespace

std::string makeHarmless(std::string_view text) {
    std::string harmless;
    while (!text.empty()) {
        const std::size_t length = getLengthOfCharacter(text);
        const std::string_view character = text.substr(0, length == 0 ? 1 : length);
        if (length > 0 && !isControl(character)) {
            harmless += character;
        } else {
            for (const char byte : character) {
                char digits[8];
                std::snprintf(digits, sizeof digits, "\\x%02x", static_cast<unsigned char>(byte));
                harmless += digits;
            }
        }
        text.remove_prefix(character.size());
    }
    return harmless;
}

}  // namespace zevrant::cli
