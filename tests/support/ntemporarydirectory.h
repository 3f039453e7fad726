#ifndef NBASE_TESTS_NTEMPORARYDIRECTORY_H
#define NBASE_TESTS_NTEMPORARYDIRECTORY_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

/** A new empty directory, which is removed with its contents at the end of the scope. */
class NTemporaryDirectory
{
public:
    NTemporaryDirectory();
    ~NTemporaryDirectory();

    /** The directory's absolute path, without a trailing "/". */
    QString path() const;

    /** The absolute path of @a name inside the directory. */
    QString filePath(const QString& name) const;

    /** Writes @a content to the file @a name, creating the directories of its path. @return the file's path. */
    QString writeFile(const QString& name, const QByteArray& content) const;

private:
    Q_DISABLE_COPY(NTemporaryDirectory)

    QString m_path;
};

#endif
