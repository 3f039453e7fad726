#ifndef NBASE_NBASELIBINFORMATION_H
#define NBASE_NBASELIBINFORMATION_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QDateTime>
#include <QtCore/QString>

/**
 * Identification of the library, for an application's "about" page and its log. All operations are thread-safe,
 * except that the first call of libraryDateTime() in a process must return before another thread calls it.
 */
class NBASE_EXPORT NBaseLibInformation
{
public:
    /** The library's name, "Nolvar base". */
    static QString libraryName();

    /** The library's version, three numbers separated by dots. */
    static QString libraryVersion();

    /**
     * The time of compilation, in the local time of the build machine.
     * @return the time; invalid when the compiler's date could not be parsed.
     */
    static QDateTime libraryDateTime();

private:
    NBaseLibInformation();
};

#endif
