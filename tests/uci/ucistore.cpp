#include "ucistore.h"

#include <QtCore/QDir>
#include <QtCore/QFile>

UciStore::UciStore(const QString& path)
    : m_path(path)
    , m_context(nullptr)
{
    QDir().mkpath(path + QLatin1String("/config"));
    QDir().mkpath(path + QLatin1String("/save"));
    reopen();
}

UciStore::~UciStore()
{
    uci_free_context(m_context);
}

void UciStore::reopen()
{
    uci_free_context(m_context);
    m_context = uci_alloc_context();
    uci_set_confdir(m_context, QFile::encodeName(m_path + QLatin1String("/config")).constData());
    uci_set_savedir(m_context, QFile::encodeName(m_path + QLatin1String("/save")).constData());
}

QString UciStore::configFile(const char* name) const
{
    return m_path + QLatin1String("/config/") + QLatin1String(name);
}

QString UciStore::stagedFile(const char* name) const
{
    return m_path + QLatin1String("/save/") + QLatin1String(name);
}

QByteArray UciStore::readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

void UciStore::writeFile(const QString& path, const QByteArray& text)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(text) != text.size())
        qFatal("%s cannot be written", qPrintable(path));
}

void UciStore::writeConfig(const char* name, const QByteArray& text) const
{
    writeFile(configFile(name), text);
}

void UciStore::writeStaged(const char* name, const QByteArray& text) const
{
    writeFile(stagedFile(name), text);
}

QByteArray UciStore::config(const char* name) const
{
    return readFile(configFile(name));
}

QByteArray UciStore::staged(const char* name) const
{
    return readFile(stagedFile(name));
}

int UciStore::call(Function function, const QByteArray& place) const
{
    QByteArray text = place;
    uci_ptr ptr;
    const int result = uci_lookup_ptr(m_context, &ptr, text.data(), true);
    return result == UCI_OK ? function(m_context, &ptr) : result;
}

int UciStore::set(const QByteArray& place) const
{
    return call(uci_set, place);
}

int UciStore::addList(const QByteArray& place) const
{
    return call(uci_add_list, place);
}

int UciStore::revert(const QByteArray& place) const
{
    return call(uci_revert, place);
}

uci_package* UciStore::find(const char* package) const
{
    uci_package* p = uci_lookup_package(m_context, package);
    if (!p)
        uci_load(m_context, package, &p);
    return p;
}

int UciStore::save(const char* package) const
{
    uci_package* p = find(package);
    return p ? uci_save(m_context, p) : m_context->err;
}

int UciStore::commit(const char* package) const
{
    uci_package* p = find(package);
    return p ? uci_commit(m_context, &p, false) : m_context->err;
}

QByteArray UciStore::value(const QByteArray& place) const
{
    QByteArray text = place;
    uci_ptr ptr;
    if (uci_lookup_ptr(m_context, &ptr, text.data(), true) != UCI_OK || !ptr.o || ptr.o->type != UCI_TYPE_STRING)
        return QByteArray();
    return QByteArray(ptr.o->v.string);
}
