#ifndef NBASE_NBASELIBINFORMATION_H
#define NBASE_NBASELIBINFORMATION_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QDateTime>
#include <QtCore/QString>

/**
 * Which library this is: what an application shows on its "about" page and writes to its log. All operations are
 * thread-safe, but the first call of libraryDateTime() in a process has to be over before another thread makes
 * one.
 */
class NBASE_EXPORT NBaseLibInformation
{
public:
    /** The library's name, "Nolvar base". */
    static QString libraryName();

    /** The library's version, three numbers separated by dots. */
    static QString libraryVersion();

    /**
     * When the library was compiled, in the local time of the machine that compiled it.
     * @return the time, or an invalid one when the compiler's date could not be read.
     */
    static QDateTime libraryDateTime();

private:
    NBaseLibInformation();
};

#endif
