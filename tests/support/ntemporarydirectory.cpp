#include "support/ntemporarydirectory.h"

#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QFileInfo>

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>

namespace {

const int OpenDirectories = 16;

int removeEntry(const char* path, const struct stat*, int, struct FTW*)
{
    return ::remove(path);
}

} // namespace

NTemporaryDirectory::NTemporaryDirectory()
{
    QByteArray pattern = QFile::encodeName(QDir::tempPath() + QString::fromLatin1("/nbase-test-XXXXXX"));
    if (!::mkdtemp(pattern.data()))
        qFatal("cannot create a temporary directory %s", pattern.constData());
    m_path = QFile::decodeName(pattern);
}

NTemporaryDirectory::~NTemporaryDirectory()
{
    ::nftw(QFile::encodeName(m_path).constData(), removeEntry, OpenDirectories, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

QString NTemporaryDirectory::path() const
{
    return m_path;
}

QString NTemporaryDirectory::filePath(const QString& name) const
{
    return m_path + QLatin1Char('/') + name;
}

QString NTemporaryDirectory::writeFile(const QString& name, const QByteArray& content) const
{
    const QString path = filePath(name);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(content) != content.size() ||
        !file.flush())
        qFatal("cannot write %s", qPrintable(path));
    return path;
}
