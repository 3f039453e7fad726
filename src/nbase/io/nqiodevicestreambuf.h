#ifndef NBASE_NQIODEVICESTREAMBUF_H
#define NBASE_NQIODEVICESTREAMBUF_H

#include <nbase/nbaseglobal.h>

#include <QtCore/qglobal.h>

#include <streambuf>

class QIODevice;

/**
 * A standard stream buffer over a Qt device, so that std::istream and std::ostream work on files, processes,
 * sockets and buffers. The device is neither owned nor opened nor closed, and must outlive the buffer, whose
 * destructor still writes to it. Nothing waits: what a device does not have yet counts as the end of the input,
 * after which a stream goes on once it is cleared. Not thread-safe.
 *
 * Two things differ from what a standard stream's user may expect:
 * - Flushing with nothing pending is a failure, which makes an std::ostream bad.
 * - When the device takes only a part of what is pending, the beginning of what was pending stays pending, as long
 *   as what the device has not taken. Devices that take everything or nothing, as files, processes and sockets of
 * Qt do, never come to that.
 */
class NBASE_EXPORT NQIODeviceStreambuf : public std::streambuf
{
public:
    /** @param device where the bytes come from and go to. */
    explicit NQIODeviceStreambuf(QIODevice* device);

protected:
    /** How many bytes the device has ready, or the largest number there is; -1 when it is at its end. */
    std::streamsize showmanyc() override;

    /** Writes what is pending to the device and makes @a c pending. @return @a c, or end of file on failure. */
    int_type overflow(int_type c = traits_type::eof()) override;

public:
    /** Writes what is pending to the device. */
    ~NQIODeviceStreambuf() override;

protected:
    /** Writes what is pending to the device. @return 0, or -1 when the device took nothing. */
    int sync() override;

    /** Reads up to 1024 bytes from the device. @return the first of them, or end of file when there are none. */
    int_type underflow() override;

    /**
     * Reads from the device in blocks of 1024 bytes, whole ones straight to @a s: of these, one character can be
     * put back, and a class that replaces underflow() does not see them unless it replaces this as well.
     * @return how many of @a n characters there were.
     */
    std::streamsize xsgetn(char* s, std::streamsize n) override;

    /** Buffers characters, and writes to the device when the buffer is full. @return how many of @a n were taken.
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
