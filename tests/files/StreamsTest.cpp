#include "files/Streams.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstring>
#include <vector>

#include "files/TemporaryFolder.h"
#include "neural/MemoryStream.h"

namespace zevrant {
namespace {

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

MemoryStream streamOverText(const std::string& text) {
    return MemoryStream({text.begin(), text.end()});
}

TEST(InputStream, stringsOfAnyLengthComeBackAndLeaveThePositionBehindThem) {
    for (const int length : {0, 1, 65535, 65536, 65537, 200000}) {
        const std::string text = makeText(length);  // holds zero bytes, which are bytes like others
        MemoryStream stream = streamOverText(encodeString(length, text) + "next");
        EXPECT_EQ(stream.readString(), text);
        EXPECT_EQ(stream.getPosition(), 4 + length);
    }
}

TEST(InputStream, oddLengthsTakeNoMoreThanAChunkOfMemory) {
    for (const int length : {-1, INT_MIN})
        EXPECT_THROW(streamOverText(encodeString(length, "text")).readString(), std::length_error);
    const std::string whole = encodeString(6, "output");
    for (std::size_t cut = 0; cut < whole.size(); ++cut) {  // missing bytes read as zeros
        std::string padded = whole.substr(0, cut).substr(std::min<std::size_t>(cut, 4));
        padded.resize(cut == 0 ? 0 : 6);
        EXPECT_EQ(streamOverText(whole.substr(0, cut)).readString(), padded) << cut;
    }
    const std::string text = streamOverText(encodeString(INT_MAX, makeText(70000))).readString();
    EXPECT_EQ(text.substr(0, 70000), makeText(70000));
    EXPECT_LE(text.capacity(), 4u * 65536u);
}

// What each access and mode leaves of a file that holds "old" and of one that is missing.
TEST(FileStream, openPreparesTheFileAsAccessAndModeSay) {
    using Stream = FileStream;
    constexpr const char* none = nullptr;  // the file does not exist afterwards
    const struct {
        Stream::FileAccess access;
        Stream::FileOpenMode mode;
        bool opensExisting, opensMissing;
        const char *existingBecomes, *missingBecomes;
    } cases[] = {
        {Stream::Read, Stream::OpenExisting, true, false, "old", none},
        {Stream::Read, Stream::OpenOrCreate, true, true, "old", ""},
        {Stream::Read, Stream::Truncate, true, true, "", ""},
        {Stream::Write, Stream::OpenExisting, true, false, "", none},
        {Stream::Write, Stream::OpenOrCreate, true, true, "", ""},
        {Stream::Write, Stream::Truncate, true, true, "", ""},
        {Stream::ReadWrite, Stream::OpenExisting, true, false, "old", none},
        {Stream::ReadWrite, Stream::OpenOrCreate, true, true, "old", ""},
        {Stream::ReadWrite, Stream::Truncate, true, true, "", ""},
        {static_cast<Stream::FileAccess>(3), Stream::OpenOrCreate, false, false, "old", ""},
    };
    for (const auto& test : cases) {
        SCOPED_TRACE(testing::Message() << "access " << test.access << ", mode " << test.mode);
        const TemporaryFolder folder;
        FileStream existing, missing;
        EXPECT_EQ(existing.open(File(folder.makeFile("existing", "old")), test.access, test.mode),
                  test.opensExisting);
        EXPECT_EQ(missing.open(File(folder.getPath("missing")), test.access, test.mode), test.opensMissing);
        EXPECT_EQ(folder.readFile("existing"), test.existingBecomes);
        ASSERT_EQ(File(folder.getPath("missing")).exists(), test.missingBecomes != none);
        // Each access does what its name says and nothing else.
        const bool writes = test.access == Stream::Write || test.access == Stream::ReadWrite;
        EXPECT_EQ(existing.write("new!", 4), test.opensExisting && writes ? 4 : 0);
        existing.close();
        EXPECT_EQ(folder.readFile("existing"), writes ? "new!" : test.existingBecomes);
    }
}

TEST(FileStream, bothFacesShareOnePosition) {
    const TemporaryFolder folder;
    FileStream stream;
    char buffer[16] = {};
    const auto expectClosed = [&] {
        EXPECT_EQ(stream.read(buffer, 1) + stream.write(buffer, 1), 0);
        EXPECT_FALSE(stream.setPosition(0));
        EXPECT_EQ(stream.getPosition() + stream.getLength(), 0);
        EXPECT_EQ(stream.readString(), "");
        stream.flush();
        stream.close();
    };
    expectClosed();
    ASSERT_TRUE(stream.open(File(folder.makeFile("a", "0123456789")), FileStream::ReadWrite,
                            FileStream::OpenExisting));
    InputStream& in = stream;
    OutputStream& out = stream;
    EXPECT_TRUE(out.setPosition(3));
    EXPECT_EQ(in.read(buffer, 4), 4);
    EXPECT_EQ(std::string(buffer, 4), "3456");
    EXPECT_EQ(out.getPosition(), 7);
    EXPECT_TRUE(in.setPosition(8));
    EXPECT_EQ(out.write("xyz", 3), 3);
    for (const int size : {0, -1, INT_MIN}) EXPECT_EQ(in.read(nullptr, size) + out.write(nullptr, size), 0);
    EXPECT_EQ(in.getPosition(), 11);
    EXPECT_EQ(in.getLength(), 10) << "unflushed bytes do not count";
    out.flush();
    EXPECT_EQ(in.getLength(), 11);
    EXPECT_TRUE(in.setPosition(8));
    EXPECT_EQ(in.read(buffer, 16), 3) << "fewer bytes where the file ends";
    EXPECT_FALSE(in.setPosition(-1));
    EXPECT_TRUE(stream.canSeek() && in.canSeek() && out.canSeek());
    out.close();
    EXPECT_EQ(folder.readFile("a"), "01234567xyz");
    expectClosed();
    EXPECT_TRUE(stream.open(File(folder.getPath("a")), FileStream::Read, FileStream::OpenExisting));
    EXPECT_EQ(stream.getLength(), 11) << "a closed stream opens again";
}

}  // namespace
}  // namespace zevrant
