#include "neural/Finding.h"

namespace zevrant {

std::string Finding::getText() const {
    std::string text;
    if (!layer.empty()) text += "layer \"" + layer + "\": ";
    if (!field.empty()) text += field + (value.empty() ? "" : " " + value) + ": ";
    text += problem;
    if (position >= 0) text += " (byte " + std::to_string(position) + ")";
    if (!remedy.empty()) text += "; " + remedy;
    return text;
}

}  // namespace zevrant
