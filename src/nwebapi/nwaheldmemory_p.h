#ifndef NWEBAPI_NWAHELDMEMORY_P_H
#define NWEBAPI_NWAHELDMEMORY_P_H

#include <QtCore/QtGlobal>

/**
 * Returns memory to the system after many clients have held it. The C library alone does so only at the end of the
 * heap, where a single small block in use keeps everything before it.
 */
class NwaHeldMemory
{
public:
    NwaHeldMemory();

    /** To be called now and then with the number of bytes that are held; frees when it has dropped far enough. */
    void update(qint64 size);

private:
    qint64 m_peak; ///< since memory was last returned
};

#endif
