#ifndef NBASE_NFREEPACKAGE_H
#define NBASE_NFREEPACKAGE_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QStringList>

/** An open-source package of the firmware, with its licences and the origin of its source. Not thread-safe. */
class NBASE_EXPORT NFreePackage
{
public:
    /** @param licenseFiles the names of the licence files with their absolute paths. */
    NFreePackage(
        const QString& name, const QString& version, const QStringList& licenses,
        const QHash<QString, QString>& licenseFiles, const QString& sourceSite, const QString& sourceArchive);
    virtual ~NFreePackage();

    /** The package's name, for example "busybox". */
    QString name() const;

    /** The version of the package that the firmware contains. */
    QString version() const;

    /** The names of the licences that the package is under, for example "GPL-2.0". */
    QStringList licenses() const;

    /** The names of the files with the licence texts, with their absolute paths. */
    QHash<QString, QString> licenseFiles() const;

    /** The address that the source comes from. */
    QString sourceSite() const;

    /** The name of the archive with the source. */
    QString sourceArchive() const;

    /**
     * The bytes of the licence file @a fileName, read now.
     *
     * A path in the folder of the free packages must not lead out of it: a name with ".." in it or a symbolic link
     * must not publish other files of the device.
     * @return an empty array for a name that the package does not have, for a file that cannot be read or is not a
     * regular file, and for one that lies outside the folder.
     */
    QByteArray licenseFileContent(const QString& fileName) const;

private:
    Q_DISABLE_COPY(NFreePackage)

    QString m_name;
    QString m_version;
    QStringList m_licenses;
    QHash<QString, QString> m_licenseFiles;
    QString m_sourceSite;
    QString m_sourceArchive;
};

#endif
