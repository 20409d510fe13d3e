#include "files/Streams.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>

namespace zevrant {

namespace {

const char* getModeString(FileStream::FileAccess access) {
    switch (access) {
        case FileStream::Read:
            return "rb";
        case FileStream::Write:
            return "wb";
        case FileStream::ReadWrite:
            return "rb+";
    }
    return "";
}

// Opens and closes the file at once: "ab" creates a missing file, "wb" empties an existing one too.
void touchFile(const File& file, const char* mode) {
    if (std::FILE* handle = std::fopen(file.getFullPath().c_str(), mode)) std::fclose(handle);
}

}  // namespace

std::string InputStream::readString() {
    std::int32_t length = 0;
    read(&length, sizeof(length));
    if (length < 0) throw std::length_error("negative string length");

    constexpr std::int32_t chunkSize = 1 << 16;
    std::string text;
    while (length > 0) {
        const std::int32_t chunk = std::min(length, chunkSize);
        const std::size_t start = text.size();
        text.resize(start + chunk);  // zeros, which stay where the stream has no more bytes
        if (read(text.data() + start, chunk) < chunk) break;
        length -= chunk;
    }
    return text;
}

FileStream::~FileStream() {
    FileStream::close();
}

bool FileStream::open(const File& fileToOpen, FileAccess access, FileOpenMode mode) {
    switch (mode) {
        case OpenExisting:
            if (!fileToOpen.exists()) return false;
            break;
        case OpenOrCreate:
            if (!fileToOpen.exists() && access != Write) touchFile(fileToOpen, "ab");
            break;
        case Truncate:
            if (access != Write) touchFile(fileToOpen, "wb");
            break;
    }
    file = std::fopen(fileToOpen.getFullPath().c_str(), getModeString(access));
    return file != nullptr;
}

int FileStream::read(void* destination, int size) {
    if (file == nullptr || size <= 0) return 0;
    return static_cast<int>(std::fread(destination, 1, size, file));
}

bool FileStream::setPosition(long long position) {
    return file != nullptr && fseeko(file, static_cast<off_t>(position), SEEK_SET) == 0;
}

long long FileStream::getPosition() const {
    return file != nullptr ? ftello(file) : 0;
}

long long FileStream::getLength() const {
    struct stat status {};
    if (file == nullptr || fstat(fileno(file), &status) != 0) return 0;
    return status.st_size;
}

void FileStream::close() {
    if (file != nullptr) std::fclose(file);
    file = nullptr;
}

int FileStream::write(const void* source, int size) {
    if (file == nullptr || size <= 0) return 0;
    return static_cast<int>(std::fwrite(source, 1, size, file));
}

void FileStream::flush() {
    if (file != nullptr) std::fflush(file);
}

}  // namespace zevrant
