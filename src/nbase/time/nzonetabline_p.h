#ifndef NBASE_NZONETABLINE_P_H
#define NBASE_NZONETABLINE_P_H

#include <QtCore/QString>

/**
 * A parsed line of the table zone.tab: a country code, coordinates as in ISO 6709, a zone name and an optional
 * comment, separated by tabs, for example "DE\t+5230+01322\tEurope/Berlin\tmost of Germany".
 *
 * It accepts exactly the lines that NBuildrootUclibcTimeZoneDatabase::S_TOWN_METADATA_REGEXP matches as a whole,
 * with the same groups. QRegExp itself would take more time for the table than reading all the zone files.
 */
class NZoneTabLine
{
public:
    struct Coordinate
    {
        Coordinate();

        int degrees;
        unsigned int minutes;
        float seconds; ///< 0 when the line has none
    };

    /** Parses @a line, which has no surrounding white space. @return whether it is the line of a zone. */
    bool parse(const QString& line);

    QString countryCode;
    Coordinate latitude;
    Coordinate longitude;
    QString region;  ///< the zone name up to its first "/"
    QString town;    ///< the rest of the zone name; may contain "/"
    QString comment; ///< empty when the line has none
};

#endif
