#ifndef NBASE_NLICENSEFILE_P_H
#define NBASE_NLICENSEFILE_P_H

#include <nsystem/nfiledescriptor_p.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

/** Reading the licence files of the packages. */
namespace NLicenseFile {

/** Where the build of the root file system leaves the list of packages and the licence files. */
const char* const FreePackagesDirectory = "/usr/share/free_packages";

/**
 * Opens the licence file @a path.
 * @return not open for a file that cannot be read or is not a regular file. A path in the folder of the free
 * packages must not lead out of it: a name with ".." in it or a symbolic link must not publish other files of the
 * device.
 */
NFileDescriptor open(const QString& path);

/**
 * The bytes of the licence file @a path from @a offset on, at most @a maximumSize of them; fewer only at the end
 * of the file, or when it cannot be read.
 *
 * The file is opened for this alone: a client that waits between two pieces of a text must not hold a descriptor.
 */
QByteArray read(const QString& path, qint64 offset, int maximumSize);

} // namespace NLicenseFile

#endif
