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

    /** Notes that @a size bytes are held now. */
    void note(qint64 size);

    /** Returns memory if much less than before is held now, @a size bytes. To be called now and then. */
    void update(qint64 size);

private:
    qint64 m_peak; ///< the most that was held since memory was last returned
};

#endif
