// Choosing the proxy of a request that no exception covers, compared with a factory that only walks over the same
// exceptions, parsed beforehand, and answers with a proxy that is made beforehand.

#include <nbase/config/nucicursor.h>
#include <nbase/network/nnetworkproxyparameters.h>

#include <QtCore/QCoreApplication>
#include <QtCore/QDir>
#include <QtCore/QFile>
#include <QtCore/QVector>
#include <QtNetwork/QHostAddress>
#include <QtNetwork/QNetworkProxy>
#include <QtNetwork/QNetworkProxyQuery>

#include <benchmark/benchmark.h>

#include <cstdlib>

namespace {

QString text(const char* latin1)
{
    return QString::fromLatin1(latin1);
}

/** A configuration directory, removed at the end of the scope. */
class Store
{
public:
    Store()
        : m_path(QDir::tempPath() + text("/bench_proxy%1").arg(QCoreApplication::applicationPid()))
    {
        QFile file(m_path + text("/proxy"));
        if (!QDir().mkpath(m_path) || !file.open(QIODevice::WriteOnly) ||
            file.write("config general 'general'\n\toption enabled '1'\n") < 0)
            std::abort();
    }

    ~Store() { QDir(m_path).removeRecursively(); }

    QString path() const { return m_path; }

private:
    QString m_path;
};

QString hostSuffix(int index)
{
    return text(".plant%1.example").arg(index);
}

quint32 network(int index)
{
    return 0x0a000000 | quint32(index) << 8;
}

const quint32 NetworkMask = 0xffffff00;

QString networkText(int index)
{
    return QHostAddress(network(index)).toString() + text("/24");
}

class NameWalk : public QNetworkProxyFactory
{
public:
    explicit NameWalk(int count)
        : m_answer(QList<QNetworkProxy>() << QNetworkProxy(QNetworkProxy::HttpProxy, text("h"), 1))
    {
        for (int index = 0; index < count; ++index)
            m_names << hostSuffix(index);
    }

    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override
    {
        const QString host = query.peerHostName();
        for (int index = 0; index < m_names.size(); ++index) {
            if (host.endsWith(m_names.at(index)))
                return QList<QNetworkProxy>();
        }
        return m_answer;
    }

private:
    QVector<QString> m_names;
    const QList<QNetworkProxy> m_answer;
};

class NetworkWalk : public QNetworkProxyFactory
{
public:
    explicit NetworkWalk(int count)
        : m_answer(QList<QNetworkProxy>() << QNetworkProxy(QNetworkProxy::HttpProxy, text("h"), 1))
    {
        for (int index = 0; index < count; ++index)
            m_networks << qMakePair(network(index), NetworkMask);
    }

    QList<QNetworkProxy> queryProxy(const QNetworkProxyQuery& query) override
    {
        const quint32 address = QHostAddress(query.peerHostName()).toIPv4Address();
        for (int index = 0; index < m_networks.size(); ++index) {
            if ((address & m_networks.at(index).second) == m_networks.at(index).first)
                return QList<QNetworkProxy>();
        }
        return m_answer;
    }

private:
    QVector<QPair<quint32, quint32>> m_networks;
    const QList<QNetworkProxy> m_answer;
};

void query(benchmark::State& state, QNetworkProxyFactory& factory, const char* host)
{
    const QNetworkProxyQuery request(text(host), 80, text("http"));
    const QList<QNetworkProxy> answer = factory.queryProxy(request);
    if (answer.size() != 1 || answer.first().type() != QNetworkProxy::HttpProxy)
        state.SkipWithError("the request has no proxy");
    for (auto _ : state)
        benchmark::DoNotOptimize(factory.queryProxy(request));
}

void queryOurs(benchmark::State& state, QString (*exception)(int), const char* host)
{
    const Store store;
    NUciCursor cursor(store.path(), store.path() + text("/save"));
    NNetworkProxyParameters settings(&cursor, text("proxy"), nullptr);
    QStringList exceptions;
    for (int index = 0; index < int(state.range(0)); ++index)
        exceptions << exception(index);
    if (!settings.setExceptions(exceptions))
        state.SkipWithError("the exceptions cannot be set");
    NNetworkProxyParameters::ProxyFactory factory(&settings);
    query(state, factory, host);
    QNetworkProxyFactory::setApplicationProxyFactory(nullptr);
}

const char otherHost[] = "downloads.updates.elsewhere.example";
const char otherAddress[] = "192.168.178.20";

void names(benchmark::State& state)
{
    queryOurs(state, hostSuffix, otherHost);
}

void namesWalk(benchmark::State& state)
{
    NameWalk walk(int(state.range(0)));
    query(state, walk, otherHost);
}

void networks(benchmark::State& state)
{
    queryOurs(state, networkText, otherAddress);
}

void networksWalk(benchmark::State& state)
{
    NetworkWalk walk(int(state.range(0)));
    query(state, walk, otherAddress);
}

void sizes(benchmark::internal::Benchmark* benchmark)
{
    benchmark->Arg(10)->Arg(1000)->Arg(10000);
}

BENCHMARK(names)->Name("proxy among names/ours")->Apply(sizes);
BENCHMARK(namesWalk)->Name("proxy among names/walk")->Apply(sizes);
BENCHMARK(networks)->Name("proxy among networks/ours")->Apply(sizes);
BENCHMARK(networksWalk)->Name("proxy among networks/walk")->Apply(sizes);

} // namespace

BENCHMARK_MAIN();
