#include "neural/RecordStream.h"

#include <utility>

namespace zevrant {

RecordStream::RecordStream(std::shared_ptr<InputStream> file)
    : stream(std::move(file)), place{{}, {}, {}, 0} {}

int RecordStream::read(void* destination, int size) {
    const int count = stream->read(destination, size);
    if (count < size && !firstMissing) firstMissing = place;
    return count;
}

void RecordStream::enterLayer(const std::string& name) {
    place = {name, {}, {}, stream->getPosition()};
}

void RecordStream::enterField(const char* name) {
    place.field = name;
    place.value.clear();
    place.position = stream->getPosition();
}

std::string readText(InputStream& stream, const char* field) {
    enterField(stream, field);
    std::string text = stream.readString();
    if (auto* record = dynamic_cast<RecordStream*>(&stream)) record->noteValue(text);
    return text;
}

}  // namespace zevrant
