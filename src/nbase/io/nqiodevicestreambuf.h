#ifndef NBASE_NQIODEVICESTREAMBUF_H
#define NBASE_NQIODEVICESTREAMBUF_H

#include <nbase/nbaseglobal.h>

#include <QtCore/qglobal.h>

#include <streambuf>

class QIODevice;

/**
 * A standard stream buffer over a Qt device, so that std::istream and std::ostream work on files, processes,
 * sockets and buffers. The device is neither owned nor opened nor closed, and must outlive the buffer, whose
 * destructor writes to it. No operation blocks: data that the device does not have yet counts as end of input; a
 * stream continues after clear(). Not thread-safe.
 *
 * Two things differ from what a user of standard streams may expect:
 * - Flushing with nothing pending is a failure, which makes an std::ostream bad.
 * - When the device accepts only a part of the pending bytes, as many bytes as it did not accept stay pending, but
 *   taken from the beginning of what was pending. Devices that accept everything or nothing, such as Qt's files,
 *   processes and sockets, are not affected.
 */
class NBASE_EXPORT NQIODeviceStreambuf : public std::streambuf
{
public:
    /** @param device where the bytes come from and go to. */
    explicit NQIODeviceStreambuf(QIODevice* device);

protected:
    /** The number of bytes that can be read now, at most the largest std::streamsize; -1 at the end of the device.
     */
    std::streamsize showmanyc() override;

    /** Writes the pending bytes to the device and makes @a c pending. @return @a c, or end of file on failure. */
    int_type overflow(int_type c = traits_type::eof()) override;

public:
    /** Writes the pending bytes to the device. */
    ~NQIODeviceStreambuf() override;

protected:
    /** Writes the pending bytes to the device. @return 0, or -1 when the device accepted none. */
    int sync() override;

    /** Reads up to 1024 bytes from the device. @return the first of them, or end of file when there are none. */
    int_type underflow() override;

    /**
     * Reads from the device in blocks of 1024 bytes, whole blocks directly into @a s. Of these, one character can
     * be put back; a derived class that overrides underflow() must override this too to see them.
     * @return how many of @a n characters were read.
     */
    std::streamsize xsgetn(char* s, std::streamsize n) override;

    /** Buffers characters, and writes to the device when the buffer is full. @return how many of @a n were
     * accepted.
     */
    std::streamsize xsputn(const char* s, std::streamsize n) override;

private:
    Q_DISABLE_COPY(NQIODeviceStreambuf)

    enum { BufferSize = 1024 };

    qint64 readBlock(char* block);

    QIODevice* m_device;
    char m_getBuffer[BufferSize];
    char m_putBuffer[BufferSize];
};

#endif
