#ifndef NBASE_TESTS_UCISTORE_H
#define NBASE_TESTS_UCISTORE_H

#include <QtCore/QByteArray>
#include <QtCore/QString>

#include <uci.h>

/** A configuration directory and a staging directory below one path, and contexts on them. */
class UciStore
{
public:
    explicit UciStore(const QString& path);
    ~UciStore();

    /** A context on the two directories, freed with this object. */
    uci_context* context() const { return m_context; }

    QString configFile(const char* name) const;
    QString stagedFile(const char* name) const;
    void writeConfig(const char* name, const QByteArray& text) const;
    void writeStaged(const char* name, const QByteArray& text) const;
    QByteArray config(const char* name) const;
    QByteArray staged(const char* name) const;

    /** Calls the function of the same name for a place given as one string, and returns its result. */
    int set(const QByteArray& place) const;
    int addList(const QByteArray& place) const;
    int revert(const QByteArray& place) const;
    int save(const char* package) const;
    int commit(const char* package) const;

    /** The value of an option that is not a list; null if there is none. */
    QByteArray value(const QByteArray& place) const;

    /** Replaces the context by a new one. */
    void reopen();

    static QByteArray readFile(const QString& path);
    static void writeFile(const QString& path, const QByteArray& text);

private:
    Q_DISABLE_COPY(UciStore)

    typedef int (*Function)(uci_context*, uci_ptr*);
    int call(Function function, const QByteArray& place) const;
    uci_package* find(const char* package) const;

    QString m_path;
    uci_context* m_context;
};

#endif
