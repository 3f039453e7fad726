#include <nbase/io/nqiodevicestreambuf.h>

#include <QtCore/QIODevice>

#include <limits>
#include <string.h>

namespace {

// A device may report more bytes than it was asked for. The count is limited because pointers into the buffers are
// computed from it.
qint64 readFrom(QIODevice* device, char* data, qint64 size)
{
    return qMin(size, device->read(data, size));
}

qint64 writeTo(QIODevice* device, const char* data, qint64 size)
{
    return qMin(size, device->write(data, size));
}

} // namespace

NQIODeviceStreambuf::NQIODeviceStreambuf(QIODevice* device)
    : m_device(device)
{
    setg(m_getBuffer, m_getBuffer, m_getBuffer);
    setp(m_putBuffer, m_putBuffer + BufferSize);
}

NQIODeviceStreambuf::~NQIODeviceStreambuf()
{
    // A virtual call would reach this class as well, because the derived part is already destroyed.
    NQIODeviceStreambuf::sync();
}

std::streamsize NQIODeviceStreambuf::showmanyc()
{
    if (m_device->atEnd())
        return -1;
    const qint64 largest = std::numeric_limits<std::streamsize>::max();
    return std::streamsize(qMin(largest, m_device->bytesAvailable()));
}

NQIODeviceStreambuf::int_type NQIODeviceStreambuf::overflow(int_type c)
{
    const bool isEnd = traits_type::eq_int_type(c, traits_type::eof());
    if (!pbase()) {
        const char character = traits_type::to_char_type(c);
        return isEnd || writeTo(m_device, &character, 1) < 1 ? traits_type::eof() : c;
    }
    if (sync() != 0)
        return traits_type::eof();
    if (isEnd)
        return c;
    *pptr() = traits_type::to_char_type(c);
    pbump(1);
    return c;
}

int NQIODeviceStreambuf::sync()
{
    if (!pbase())
        return 0;
    const qint64 pending = pptr() - pbase();
    // With nothing pending the device is not written to: it may be closed, and a datagram socket would send an
    // empty datagram.
    const qint64 written = pending > 0 ? writeTo(m_device, pbase(), pending) : 0;
    if (written < 1)
        return -1;
    // Intended: the block behind the pending bytes is moved, and the pending bytes lose their end. Only the part
    // of that block inside the buffer is moved.
    if (written < pending && written < epptr() - pptr())
        memmove(pptr(), pptr() + written, size_t(qMin(written, qint64(epptr() - pptr()) - written)));
    pbump(-int(written));
    return 0;
}

NQIODeviceStreambuf::int_type NQIODeviceStreambuf::underflow()
{
    if (!eback()) {
        char character;
        return readFrom(m_device, &character, 1) < 1 ? traits_type::eof() : traits_type::to_int_type(character);
    }
    if (gptr() < egptr())
        return traits_type::to_int_type(*gptr());
    const qint64 size = readFrom(m_device, m_getBuffer, BufferSize);
    if (size < 1)
        return traits_type::eof();
    setg(m_getBuffer, m_getBuffer, m_getBuffer + size);
    return traits_type::to_int_type(*gptr());
}

std::streamsize NQIODeviceStreambuf::xsgetn(char* s, std::streamsize n)
{
    if (!eback())
        return std::streamsize(qMax(qint64(0), readFrom(m_device, s, n)));
    std::streamsize count = 0;
    while (count < n) {
        const std::streamsize size = qMin(std::streamsize(egptr() - gptr()), n - count);
        if (size > 0) {
            memcpy(s + count, gptr(), size_t(size));
            gbump(int(size));
            count += size;
        } else if (n - count >= BufferSize) {
            const qint64 blockSize = readBlock(s + count);
            if (blockSize < 1)
                break;
            count += std::streamsize(blockSize);
        } else if (traits_type::eq_int_type(underflow(), traits_type::eof())) {
            break;
        }
    }
    return count;
}

// Reads a block directly to its destination instead of the get buffer, which saves copying it. Its last character
// can be put back.
qint64 NQIODeviceStreambuf::readBlock(char* block)
{
    const qint64 size = readFrom(m_device, block, BufferSize);
    if (size > 0) {
        m_getBuffer[0] = block[size - 1];
        setg(m_getBuffer, m_getBuffer + 1, m_getBuffer + 1);
    }
    return size;
}

std::streamsize NQIODeviceStreambuf::xsputn(const char* s, std::streamsize n)
{
    if (pbase())
        return std::streambuf::xsputn(s, n);
    return std::streamsize(qMax(qint64(0), writeTo(m_device, s, n)));
}
