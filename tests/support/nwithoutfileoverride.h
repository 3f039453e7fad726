#ifndef NBASE_TESTS_NWITHOUTFILEOVERRIDE_H
#define NBASE_TESTS_NWITHOUTFILEOVERRIDE_H

#include <QtCore/qglobal.h>

/**
 * Makes file permissions count for the calling thread, even when it is root's, until the end of the scope: it
 * gives up the capabilities CAP_DAC_OVERRIDE and CAP_DAC_READ_SEARCH (see capabilities(7)).
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
