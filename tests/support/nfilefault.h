#ifndef NBASE_TESTS_NFILEFAULT_H
#define NBASE_TESTS_NFILEFAULT_H

#include <QtCore/qglobal.h>

/**
 * Makes calls of the C library's file functions fail with an input or output error during its scope, as a worn out
 * flash memory does: the test program has functions of these names of its own, which come before the C library's.
 * For that it is linked with its symbols exported (ENABLE_EXPORTS). A file whose closing fails is closed
 * nevertheless, as Linux does. One at a time.
 */
class NFileFault
{
public:
    enum Call { Read, Write, Synchronize, Remove, Close };

    /** All such calls fail; with an @a offset, only those that read or write at this place of a file. */
    explicit NFileFault(Call call, qint64 offset = -1);

    /** Only one call fails, after @a skipped ones. */
    static NFileFault* once(Call call, int skipped);

    ~NFileFault();

    /** How many calls have failed. */
    int count() const;

private:
    Q_DISABLE_COPY(NFileFault)
};

#endif
