// Loads the list of packages with the input as its manifest. Nothing outside the folder may become readable.

#include <nbase/nbaseqtcompat_p.h>
#include <nbase/web/nfreepackage.h>
#include <nbase/web/nfreepackageslist.h>

#include "support/nprivatenamespace.h"

#include <QtCore/QFile>

#include <stdlib.h>

namespace {

const char* const Header =
    "\"PACKAGE\",\"VERSION\",\"LICENSE\",\"LICENSE FILES\",\"SOURCE ARCHIVE\",\"SOURCE SITE\"\n";

void require(bool condition)
{
    if (!condition)
        abort();
}

void ignoreMessage(QtMsgType, const char*) {}

void writeFile(const QString& path, const QByteArray& content)
{
    QFile file(path);
    require(file.open(QIODevice::WriteOnly) && file.write(content) == content.size());
}

void check(const QByteArray& manifest)
{
    const QDir& directory = NFreePackagesList::S_FREE_PACKAGES_DIR;
    writeFile(directory.filePath(QString::fromLatin1("manifest.csv")), manifest);
    const NFreePackagesList list(nullptr);
    const QHash<QString, NFreePackage*> packages = list.freePackages();
    for (QHash<QString, NFreePackage*>::const_iterator it = packages.constBegin(); it != packages.constEnd();
         ++it) {
        const NFreePackage* const package = it.value();
        require(package->name() == it.key());
        require(!package->licenses().contains(QString()));
        const QHash<QString, QString> files = package->licenseFiles();
        for (QHash<QString, QString>::const_iterator file = files.constBegin(); file != files.constEnd(); ++file) {
            require(!file.key().isEmpty() && !file.key().contains(QLatin1Char(' ')));
            const QByteArray content = package->licenseFileContent(file.key());
            require(content.isEmpty() || content == "licence\n" || content == manifest);
        }
    }
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    NPrivateNamespace::enter(NPrivateNamespace::Mounts);
    const QString directory = NFreePackagesList::S_FREE_PACKAGES_DIR.path();
    NPrivateNamespace::mountEmptyDirectory(directory);
    require(QDir().mkpath(directory + QString::fromLatin1("/licenses/p-1")));
    writeFile(directory + QString::fromLatin1("/licenses/p-1/f"), "licence\n");
    NBaseQtCompat::installMessageHandler<ignoreMessage>();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), int(size));
    check(input);
    check(Header + input);
    return 0;
}
