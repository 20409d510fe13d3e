#include "files/Streams.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

#include "files/TemporaryFolder.h"
#include "neural/MemoryStream.h"

namespace zevrant {
namespace {

// Records how much the reader asked for at a time.
class RecordingStream : public MemoryStream {
  public:
    explicit RecordingStream(const std::string& text) : MemoryStream({text.begin(), text.end()}) {}
    int read(void* destination, int size) override {
        largestRead = std::max(largestRead, size);
        return MemoryStream::read(destination, size);
    }
    int largestRead = 0;
};

std::string encodeString(std::int32_t length, const std::string& text) {
    std::string bytes(sizeof(length), '\0');
    std::memcpy(bytes.data(), &length, sizeof(length));
    return bytes + text;
}

std::string makeText(std::size_t length) {
    std::string text(length, '\0');
    for (std::size_t i = 0; i < length; ++i) text[i] = static_cast<char>(i * 31 + i / 251);
    return text;
}

TEST(InputStream, stringsOfAnyLengthComeBackAndLeaveThePositionBehindThem) {
    for (const int length : {0, 1, 2, 255, 65535, 65536, 65537, 200000}) {
        SCOPED_TRACE(length);
        const std::string text = makeText(length);  // holds zero bytes, which are bytes like others
        RecordingStream stream(encodeString(length, text) + "next");
        EXPECT_EQ(stream.readString(), text);
        EXPECT_EQ(stream.getPosition(), 4 + length);
    }
}

TEST(InputStream, negativeLengthsThrow) {
    for (const int length : {-1, -2, -65536, INT_MIN}) {
        RecordingStream stream(encodeString(length, "text"));
        EXPECT_THROW(stream.readString(), std::length_error) << length;
    }
}

TEST(InputStream, missingBytesReadAsZeros) {
    const std::string text = "output", whole = encodeString(6, text);
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {
        SCOPED_TRACE(cut);
        RecordingStream stream(whole.substr(0, cut));
        std::string padded = text.substr(0, cut < 4 ? 0 : cut - 4);
        padded.resize(cut == 0 ? 0 : 6);
        EXPECT_EQ(stream.readString(), padded);
    }
}

TEST(InputStream, lengthsFarBeyondTheEndTakeMemoryForOneChunk) {
    RecordingStream stream(encodeString(INT_MAX, makeText(70000)));
    const std::string text = stream.readString();
    EXPECT_EQ(text.substr(0, 70000), makeText(70000));
    EXPECT_LE(text.capacity(), 4u * 65536u);
    EXPECT_LE(stream.largestRead, 65536);
    EXPECT_EQ(text.substr(70000).find_first_not_of('\0'), std::string::npos);
}

// What each access and mode leaves of a file that holds "old" and of one that is missing.
TEST(FileStream, openPreparesTheFileAsAccessAndModeSay) {
    constexpr const char* none = nullptr;  // the file does not exist afterwards
    const struct {
        FileStream::FileAccess access;
        FileStream::FileOpenMode mode;
        bool opensExisting, opensMissing;
        const char *existingBecomes, *missingBecomes;
    } cases[] = {
        {FileStream::Read, FileStream::OpenExisting, true, false, "old", none},
        {FileStream::Read, FileStream::OpenOrCreate, true, true, "old", ""},
        {FileStream::Read, FileStream::Truncate, true, true, "", ""},
        {FileStream::Write, FileStream::OpenExisting, true, false, "", none},
        {FileStream::Write, FileStream::OpenOrCreate, true, true, "", ""},
        {FileStream::Write, FileStream::Truncate, true, true, "", ""},
        {FileStream::ReadWrite, FileStream::OpenExisting, true, false, "old", none},
        {FileStream::ReadWrite, FileStream::OpenOrCreate, true, true, "old", ""},
        {FileStream::ReadWrite, FileStream::Truncate, true, true, "", ""},
        {static_cast<FileStream::FileAccess>(3), FileStream::OpenExisting, false, false, "old", none},
        {static_cast<FileStream::FileAccess>(3), FileStream::OpenOrCreate, false, false, "old", ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::Message() << "access " << test.access << ", mode " << test.mode);
        const TemporaryFolder folder;
        FileStream existing, missing;
        EXPECT_EQ(existing.open(File(folder.makeFile("existing", "old")), test.access, test.mode),
                  test.opensExisting);
        EXPECT_EQ(missing.open(File(folder.getPath("missing")), test.access, test.mode), test.opensMissing);
        EXPECT_EQ(existing.getPosition(), 0);
        EXPECT_EQ(folder.readFile("existing"), test.existingBecomes);
        ASSERT_EQ(File(folder.getPath("missing")).exists(), test.missingBecomes != none);
        EXPECT_EQ(folder.readFile("missing"), "");

        // Each access does what its name says and nothing else.
        const bool writes = test.access == FileStream::Write || test.access == FileStream::ReadWrite;
        EXPECT_EQ(existing.write("new!", 4), test.opensExisting && writes ? 4 : 0);
        existing.close();
        EXPECT_EQ(folder.readFile("existing"), writes ? "new!" : test.existingBecomes);
    }
}

TEST(FileStream, bothFacesShareOnePosition) {
    const TemporaryFolder folder;
    FileStream stream;
    ASSERT_TRUE(stream.open(File(folder.makeFile("a", "0123456789")), FileStream::ReadWrite,
                            FileStream::OpenExisting));
    InputStream& in = stream;
    OutputStream& out = stream;
    char buffer[16] = {};
    EXPECT_TRUE(out.setPosition(3));
    EXPECT_EQ(in.getPosition(), 3);
    EXPECT_EQ(in.read(buffer, 4), 4);
    EXPECT_EQ(std::string(buffer, 4), "3456");
    EXPECT_EQ(out.getPosition(), 7);
    EXPECT_TRUE(in.setPosition(8));
    EXPECT_EQ(out.write("xyz", 3), 3);
    EXPECT_EQ(in.getPosition(), 11);
    EXPECT_EQ(in.getLength(), 10) << "unflushed bytes do not count";
    out.flush();
    EXPECT_EQ(in.getLength(), 11);
    EXPECT_EQ(in.getPosition(), 11) << "asking for the length does not move";
    EXPECT_TRUE(in.setPosition(8));
    EXPECT_EQ(in.read(buffer, 16), 3) << "fewer bytes where the file ends";
    EXPECT_EQ(std::string(buffer, 3), "xyz");
    EXPECT_FALSE(in.setPosition(-1));
    EXPECT_TRUE(stream.canSeek() && in.canSeek() && out.canSeek());
    out.close();
    EXPECT_EQ(folder.readFile("a"), "01234567xyz");
}

TEST(FileStream, oddSizesMoveNothing) {
    const TemporaryFolder folder;
    FileStream stream;
    ASSERT_TRUE(
        stream.open(File(folder.makeFile("a", "abc")), FileStream::ReadWrite, FileStream::OpenExisting));
    for (const int size : {0, -1, INT_MIN}) {
        EXPECT_EQ(stream.read(nullptr, size), 0);
        EXPECT_EQ(stream.write(nullptr, size), 0);
    }
    EXPECT_EQ(stream.getPosition(), 0);
}

TEST(FileStream, aClosedStreamDoesNothing) {
    const TemporaryFolder folder;
    FileStream neverOpened, closed;
    ASSERT_TRUE(closed.open(File(folder.makeFile("a", "abc")), FileStream::Read, FileStream::OpenExisting));
    closed.close();
    for (FileStream* stream : {&neverOpened, &closed}) {
        char byte = 'x';
        EXPECT_EQ(stream->read(&byte, 1), 0);
        EXPECT_EQ(stream->write(&byte, 1), 0);
        EXPECT_EQ(byte, 'x');
        EXPECT_FALSE(stream->setPosition(0));
        EXPECT_EQ(stream->getPosition(), 0);
        EXPECT_EQ(stream->getLength(), 0);
        EXPECT_EQ(stream->readString(), "");
        stream->flush();
        stream->close();
        stream->close();
    }
    EXPECT_TRUE(closed.open(File(folder.getPath("a")), FileStream::Read, FileStream::OpenExisting));
    EXPECT_EQ(closed.getLength(), 3) << "a closed stream opens again";
}

TEST(FileStream, readsStringsFromFiles) {
    const TemporaryFolder folder;
    const std::string first = makeText(100000), second = "second";
    folder.makeFile("a", encodeString(100000, first) + encodeString(6, second));
    const auto stream = std::make_shared<FileStream>();
    ASSERT_TRUE(stream->open(File(folder.getPath("a")), FileStream::Read, FileStream::OpenExisting));
    const std::shared_ptr<InputStream> in = stream;
    EXPECT_EQ(in->readString(), first);
    EXPECT_EQ(in->readString(), second);
    EXPECT_EQ(in->readString(), "") << "at the end";
}

static_assert(!std::is_copy_constructible_v<FileStream>, "a stream owns its file");

}  // namespace
}  // namespace zevrant
