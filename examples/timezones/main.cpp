// Lists the time zones of the device, or sets the time zone of the system:
//
//     nbase-example-timezones [<region> <town>]

#include <nbase/time/nbuildrootuclibctimezonedatabase.h>

#include <QtCore/QFile>

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

namespace {

// The keys of the maps are file system names, which select a zone; name() is for display.
void listTimeZones(const NBuildrootUclibcTimeZoneDatabase& database)
{
    for (const NTimeZoneRegion* region : database.regions()) {
        for (const NTimeZoneTown* town : region->towns())
            printf("%s: %s\n", qPrintable(region->name()), qPrintable(town->name()));
    }
}

// A new file replaces the old one, so that a power loss leaves either of them complete.
bool applyTimeZone(const QString& code)
{
    QFile file(QString::fromLatin1("/etc/TZ.new"));
    return file.open(QIODevice::WriteOnly) && file.write(code.toLatin1() + '\n') > 0 && file.flush() &&
           ::fsync(file.handle()) == 0 && ::rename("/etc/TZ.new", "/etc/TZ") == 0;
}

} // namespace

int main(int argc, char** argv)
{
    const NBuildrootUclibcTimeZoneDatabase database;
    if (argc != 3) {
        listTimeZones(database);
        return EXIT_SUCCESS;
    }
    const NTimeZoneTown* town = database.town(QString::fromLatin1(argv[1]), QString::fromLatin1(argv[2]));
    if (!town) {
        fprintf(stderr, "unknown time zone\n");
        return EXIT_FAILURE;
    }
    if (!applyTimeZone(town->timezoneCode())) {
        perror("cannot store the time zone");
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
