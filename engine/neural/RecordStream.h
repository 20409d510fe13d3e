#pragma once

#include <memory>
#include <optional>
#include <string>

#include "files/Streams.h"
#include "neural/Tensor.h"

namespace zevrant {

// A model file on its way into layers: hands every call on and remembers which field is being read, so that
// whoever reads the file can say where it went wrong. Layers take any InputStream and only name their fields.
class RecordStream : public InputStream {
  public:
    struct Place {
        std::string layer;   // empty outside of layer records
        std::string field;   // as named last
        std::string value;   // of a text that was read as this field
        long long position;  // of the field in bytes, -1 where it has been read before
    };

    explicit RecordStream(std::shared_ptr<InputStream> file);

    int read(void* destination, int size) override;
    bool setPosition(long long position) override { return stream->setPosition(position); }
    long long getPosition() const override { return stream->getPosition(); }
    long long getLength() const override { return stream->getLength(); }
    bool canSeek() const override { return stream->canSeek(); }
    void close() override { stream->close(); }

    // What is read from here on, up to the next call.
    void enterLayer(const std::string& name);
    void enterField(const char* name);
    void noteValue(const std::string& value) { place.value = value; }

    // Something that has been read already and turns out to be wrong.
    void pointAt(const std::string& layer, const char* field) { place = {layer, field, {}, -1}; }

    const Place& getPlace() const { return place; }

    // The field that the file did not hold to its end, if any.
    const std::optional<Place>& getFirstMissing() const { return firstMissing; }

  private:
    std::shared_ptr<InputStream> stream;
    Place place;
    std::optional<Place> firstMissing;
};

// Names the field that is read next where the stream keeps track of it.
inline void enterField(InputStream& stream, const char* field) {
    if (auto* record = dynamic_cast<RecordStream*>(&stream)) record->enterField(field);
}

// Takes one little-endian number out of a model stream. Bytes that a stream at its end does not deliver
// keep their earlier contents.
template <class Number>
Number readNumber(InputStream& stream, Number value = {}) {
    stream.read(&value, static_cast<int>(sizeof value));
    return value;
}

// The same for a number, a text and a tensor with the name of their field.
template <class Number>
Number readNumber(InputStream& stream, const char* field, Number value = {}) {
    enterField(stream, field);
    return readNumber(stream, value);
}
std::string readText(InputStream& stream, const char* field);
template <class T>
Tensor<T> readTensor(const std::shared_ptr<InputStream>& stream, int version, const char* field) {
    enterField(*stream, field);
    return Tensor<T>(stream, version);
}

}  // namespace zevrant
