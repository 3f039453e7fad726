#ifndef NBASE_TESTS_NWITHOUTFILEOVERRIDE_H
#define NBASE_TESTS_NWITHOUTFILEOVERRIDE_H

#include <QtCore/qglobal.h>

/**
 * Makes file permissions apply to the calling thread, even as root, until the end of the scope: drops the
 * capabilities CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH (capabilities(7)).
 */
class NWithoutFileOverride
{
public:
    NWithoutFileOverride();
    ~NWithoutFileOverride();

private:
    Q_DISABLE_COPY(NWithoutFileOverride)

    quint32 m_removed;
};

#endif
