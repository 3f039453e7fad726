#ifndef NBASE_NFREEPACKAGESLIST_H
#define NBASE_NFREEPACKAGESLIST_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QDir>
#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QString>

class NFreePackage;

/**
 * The open-source packages of the firmware, as the build of the root file system has listed them in "manifest.csv"
 * in S_FREE_PACKAGES_DIR. The list is loaded once, by the constructor. Not thread-safe.
 *
 * The manifest's text is Latin-1. Its first line is the header
 * "PACKAGE","VERSION","LICENSE","LICENSE FILES","SOURCE ARCHIVE","SOURCE SITE" and each further one, unless it is
 * empty, a package with these six fields, each in quotes. Nothing is escaped: quote, comma, quote always begins a
 * new field. Licences are separated by a comma and a blank, the names of licence files by blanks; the files
 * are "licenses/<package>-<version>/<name>" in the same folder. Lines end with a line feed.
 */
class NBASE_EXPORT NFreePackagesList : public QObject
{
    Q_OBJECT

public:
    static const QDir S_FREE_PACKAGES_DIR; ///< "/usr/share/free_packages"

    /** Loads the list. It stays empty when that fails, and a warning gives the reason. */
    explicit NFreePackagesList(QObject* parent);
    ~NFreePackagesList() override;

    /** The packages by name; they belong to the list. */
    QHash<QString, NFreePackage*> freePackages() const;

    /**
     * Makes the packages of the manifest. Of lines with the same package name the last one counts. A line that is
     * malformed or longer than 1 MiB is left out, with a warning. Whether a licence file exists is not checked.
     * When reading fails, the list ends, with a warning.
     * @return the packages by name, which belong to the caller; none, with a warning, when the manifest cannot be
     * opened, is not a regular file or begins with another header.
     */
    static QHash<QString, NFreePackage*> loadFreePackages();

private:
    Q_DISABLE_COPY(NFreePackagesList)

    QHash<QString, NFreePackage*> m_freePackages;
};

#endif
