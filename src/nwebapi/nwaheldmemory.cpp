#include <nwebapi/nwaheldmemory_p.h>

#include <malloc.h>

namespace {

// Returning less is not worth the time.
const int ReturnedSize = 256 * 1024;

void returnFreeMemory()
{
#if defined(__GLIBC__) && !defined(__UCLIBC__)
    ::malloc_trim(0);
#endif
}

} // namespace

NwaHeldMemory::NwaHeldMemory()
    : m_peak(0)
{
}

void NwaHeldMemory::note(qint64 size)
{
    m_peak = qMax(m_peak, size);
}

void NwaHeldMemory::update(qint64 size)
{
    if (m_peak - size >= ReturnedSize) {
        returnFreeMemory();
        m_peak = size;
    }
    note(size);
}
