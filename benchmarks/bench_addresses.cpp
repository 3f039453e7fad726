// Parsing and checking addresses, compared with the documented regular expression, constructed at each call as a
// caller would do; and checking malicious input, compared with one pass over the same characters.

#include <nbase/network/nmacaddress.h>
#include <nbase/network/nnetworkutilities.h>

#include <QtCore/QRegExp>

#include <benchmark/benchmark.h>

namespace {

QString macAddressText()
{
    return QString::fromLatin1("00:1A:2b:3C:4d:5E");
}

QString ipv4AddressText()
{
    return QString::fromLatin1("192.168.001.254");
}

QString rangeText()
{
    return QString::fromLatin1("192.168.10.0/255.255.255.0");
}

QString hostNameText()
{
    return QString::fromLatin1("gateway-1.devices.example.com");
}

// The longest valid texts: the number of leading zeros is unlimited.
QString hostileAddressText(int size)
{
    return QString(size, QLatin1Char('0')) + QString::fromLatin1("1.2.3.4");
}

QString hostileRangeText(int size)
{
    return QString::fromLatin1("1.2.3.4/") + QString(size, QLatin1Char('0')) + QString::fromLatin1("32");
}

QString hostileNameText(int size)
{
    return QString::fromLatin1("a.").repeated(size / 2);
}

QString hostileMacAddressText(int size)
{
    return QString::fromLatin1("00:").repeated(size / 3);
}

void readMacAddress(benchmark::State& state)
{
    const QString text = macAddressText();
    for (auto _ : state)
        benchmark::DoNotOptimize(NMacAddress(text));
}

void matchMacAddress(benchmark::State& state)
{
    const QString text = macAddressText();
    const QString byte = QString::fromLatin1("([A-Fa-f0-9]{2})");
    const QString expression = (byte + QLatin1Char(':')).repeated(5) + byte;
    for (auto _ : state) {
        QRegExp regExp(expression);
        unsigned char bytes[6] = {0};
        if (regExp.exactMatch(text)) {
            for (int index = 0; index < 6; ++index)
                bytes[index] = static_cast<unsigned char>(regExp.cap(index + 1).toUInt(nullptr, 16));
        }
        benchmark::DoNotOptimize(NMacAddress(bytes));
    }
}

template <bool (*check)(const QString&), QString (*makeText)()> void checkText(benchmark::State& state)
{
    const QString text = makeText();
    for (auto _ : state)
        benchmark::DoNotOptimize(check(text));
}

template <const QString* expression, QString (*makeText)()> void matchText(benchmark::State& state)
{
    const QString text = makeText();
    for (auto _ : state)
        benchmark::DoNotOptimize(QRegExp(*expression).exactMatch(text));
}

template <bool (*check)(const QString&), QString (*makeText)(int)> void checkHostile(benchmark::State& state)
{
    const QString text = makeText(int(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(check(text));
}

template <QString (*makeText)(int)> void walkHostile(benchmark::State& state)
{
    const QString text = makeText(int(state.range(0)));
    for (auto _ : state) {
        int zeros = 0;
        for (const QChar* position = text.constData(); !position->isNull(); ++position)
            zeros += *position == QLatin1Char('0');
        benchmark::DoNotOptimize(zeros);
    }
}

typedef NNetworkUtilities Utilities;

} // namespace

BENCHMARK(readMacAddress)->Name("read a MAC address/ours");
BENCHMARK(matchMacAddress)->Name("read a MAC address/QRegExp");
BENCHMARK_TEMPLATE(checkText, &Utilities::isMacAddress, &macAddressText)->Name("check a MAC address/ours");
BENCHMARK_TEMPLATE(matchText, &NMacAddress::S_REG_EXP_STRING, &macAddressText)
    ->Name("check a MAC address/QRegExp");
BENCHMARK_TEMPLATE(checkText, &Utilities::isIpv4Address, &ipv4AddressText)->Name("check an IPv4 address/ours");
BENCHMARK_TEMPLATE(matchText, &Utilities::S_IPV4_REGEXP, &ipv4AddressText)->Name("check an IPv4 address/QRegExp");
BENCHMARK_TEMPLATE(checkText, &Utilities::isIpv4AddressRange, &rangeText)->Name("check an IPv4 range/ours");
BENCHMARK_TEMPLATE(matchText, &Utilities::S_IPV4_RANGE_REGEXP, &rangeText)->Name("check an IPv4 range/QRegExp");
BENCHMARK_TEMPLATE(checkText, &Utilities::isHostmane, &hostNameText)->Name("check a host name/ours");
BENCHMARK_TEMPLATE(matchText, &Utilities::S_HOSTNAME_REGEXP, &hostNameText)->Name("check a host name/QRegExp");

#define NBASE_BENCHMARK_HOSTILE(name, check, makeText) \
    BENCHMARK_TEMPLATE(checkHostile, check, makeText) \
        ->Name(name "/ours") \
        ->RangeMultiplier(10) \
        ->Range(10000, 1000000); \
    BENCHMARK_TEMPLATE(walkHostile, makeText)->Name(name "/walk")->RangeMultiplier(10)->Range(10000, 1000000)

NBASE_BENCHMARK_HOSTILE("hostile MAC address", &Utilities::isMacAddress, &hostileMacAddressText);
NBASE_BENCHMARK_HOSTILE("hostile IPv4 address", &Utilities::isIpv4Address, &hostileAddressText);
NBASE_BENCHMARK_HOSTILE("hostile IPv4 range", &Utilities::isIpv4AddressRange, &hostileRangeText);
NBASE_BENCHMARK_HOSTILE("hostile host name", &Utilities::isHostmane, &hostileNameText);

BENCHMARK_MAIN();
