// Keeps sensors and their readings in a database of two tables. Called with the file's path it opens the database,
// stores one reading and prints what is there.
//
//     nbase-example-database <database file>

#include "sensordatabase.h"

#include <QtCore/QCoreApplication>
#include <QtCore/QStringList>
#include <QtCore/QTextStream>

int main(int argc, char** argv)
{
    // Qt finds the SQLite driver through the application object.
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.size() != 2) {
        QTextStream(stderr) << "usage: nbase-example-database <database file>\n";
        return 2;
    }

    SensorDatabase database(arguments.at(1));
    database.openDatabase();
    if (!database.database().isOpen())
        return 1;

    const qlonglong sensor =
        database.sensors().rowidOf(QString::fromLatin1("boiler"), QString::fromLatin1("degrees"));
    if (sensor == 0 || !database.readings().add(sensor, 21.5))
        return 1;

    QTextStream output(stdout);
    const QList<QMap<QString, QVariant>> sensors = database.sensors().all();
    for (const QMap<QString, QVariant>& row : sensors) {
        output << row.value(QString::fromLatin1("name")).toString() << " ("
               << row.value(QString::fromLatin1("unit")).toString()
               << "): " << row.value(QString::fromLatin1("readings")).toInt() << '\n';
    }
    return 0;
}
