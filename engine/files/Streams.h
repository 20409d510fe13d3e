#pragma once

#include <cstdio>
#include <string>

#include "files/File.h"

namespace zevrant {

// Byte streams. Readers know only InputStream, so a model may come from anywhere; FileStream is the
// one stream that the engine brings along.
//
// Positions and lengths count bytes from the start of the stream.
// Threads  A stream belongs to one thread at a time.
class BinaryInputStream {
  public:
    virtual ~BinaryInputStream() = default;

    // Moves up to size bytes to destination and returns how many; fewer only where the stream ends.
    virtual int read(void* destination, int size) = 0;

    virtual bool setPosition(long long position) = 0;
    virtual long long getPosition() const = 0;
    virtual long long getLength() const = 0;
    virtual bool canSeek() const { return true; }
    virtual void close() = 0;
};

class InputStream : public BinaryInputStream {
  public:
    // Reads a signed 32-bit byte count in the byte order of the machine, then that many bytes.
    //
    // Bytes that the stream does not have read as zeros, those of the count too, so a stream at its
    // end gives an empty text. Memory is taken in step with what is really there: a count far beyond
    // the end costs one chunk of 64 KiB, and the text ends with that chunk.
    // Errors   std::length_error for a negative count.
    std::string readString();
};

class BinaryOutputStream {
  public:
    virtual ~BinaryOutputStream() = default;

    // Moves size bytes from source into the stream and returns how many it took.
    virtual int write(const void* source, int size) = 0;

    virtual void flush() = 0;
    virtual bool setPosition(long long position) = 0;
    virtual long long getPosition() const = 0;
    virtual bool canSeek() const { return true; }
    virtual void close() = 0;
};

class OutputStream : public BinaryOutputStream {};

// A file as a stream, read and written at one common position through the C library.
//
// Errors   open() tells by its result; everything else passes on what the C library says. On a closed
//          stream nothing happens: counts, positions and lengths are 0, setPosition() is false.
class FileStream : public InputStream, public OutputStream {
  public:
    enum FileAccess {
        Read = 0,      // "rb"
        Write = 1,     // "wb": empties a file in every open mode
        ReadWrite = 2  // "rb+"
    };

    enum FileOpenMode {
        OpenExisting = 0,  // fails unless the file exists
        OpenOrCreate = 1,  // creates the file when it is missing
        Truncate = 2       // starts from an empty file
    };

    FileStream() = default;
    ~FileStream() override;
    FileStream(const FileStream&) = delete;
    FileStream& operator=(const FileStream&) = delete;

    // Opens the file and returns whether that succeeded. A stream is opened once: a file that is
    // open already is not closed, on purpose, so call close() first.
    bool open(const File& fileToOpen, FileAccess access, FileOpenMode mode);

    int read(void* destination, int size) override;
    bool setPosition(long long position) override;
    long long getPosition() const override;

    // What the system knows of the file; bytes that are not flushed yet may not count. Does not move
    // the position.
    long long getLength() const override;

    using InputStream::canSeek;
    void close() override;
    int write(const void* source, int size) override;
    void flush() override;

  private:
    std::FILE* file = nullptr;  // null while closed
};

}  // namespace zevrant
