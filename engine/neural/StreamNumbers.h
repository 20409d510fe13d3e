#pragma once

#include "files/Streams.h"

namespace zevrant {

// Takes one little-endian number out of a model stream. Bytes that a stream at its end does not deliver
// keep their earlier contents.
template <class Number>
Number readNumber(InputStream& stream, Number value = {}) {
    stream.read(&value, static_cast<int>(sizeof value));
    return value;
}

}  // namespace zevrant
