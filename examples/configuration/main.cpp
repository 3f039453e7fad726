// Reads and changes the configuration of a network interface.
//
//     nbase-example-configuration <configuration directory> <staging directory>

#include <nbase/config/nucicursor.h>

#include <QtCore/QTextStream>

int main(int argc, char** argv)
{
    if (argc != 3)
        return 255;
    NUciCursor cursor(QString::fromLocal8Bit(argv[1]), QString::fromLocal8Bit(argv[2]));
    const QString network = QString::fromLatin1("network");
    const QString lan = QString::fromLatin1("lan");
    const QString mtu = QString::fromLatin1("mtu");

    // The default is returned if the option does not exist or is not a number.
    QTextStream output(stdout);
    output << "MTU: " << cursor.optionAsInt(network, lan, mtu, 1500) << '\n';

    // An option cannot be set in a missing section.
    if (!cursor.section(network, lan))
        cursor.setSection(network, lan, QString::fromLatin1("interface"));
    const QStringList servers = QStringList()
                                << QString::fromLatin1("10.0.0.1") << QString::fromLatin1("10.0.0.3");
    const bool changed = cursor.setOption(network, lan, mtu, QString::fromLatin1("1400")) &&
                         cursor.setOption(network, lan, QString::fromLatin1("dns"), servers);
    if (!changed || !cursor.commit(network)) {
        cursor.load(network); // drops the changes made so far
        output << "the configuration could not be changed\n";
        return 1;
    }
    output << "MTU: " << cursor.optionAsInt(network, lan, mtu, 1500) << '\n';
    return 0;
}
