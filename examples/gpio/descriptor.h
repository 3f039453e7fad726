#ifndef NGPIO_DESCRIPTOR_H
#define NGPIO_DESCRIPTOR_H

#include <QtCore/QtGlobal>

#include <unistd.h>

/** A file descriptor that is closed with the object. */
class Descriptor
{
public:
    explicit Descriptor(int number = -1)
        : m_number(number)
    {
    }

    ~Descriptor() { reset(); }

    bool isOpen() const { return m_number >= 0; }
    int number() const { return m_number; }

    void reset(int number = -1)
    {
        if (isOpen())
            ::close(m_number);
        m_number = number;
    }

private:
    Q_DISABLE_COPY(Descriptor)

    int m_number;
};

#endif
