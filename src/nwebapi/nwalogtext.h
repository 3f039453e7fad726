#ifndef NWEBAPI_NWALOGTEXT_H
#define NWEBAPI_NWALOGTEXT_H

#include <nwebapi/nwaglobal.h>

#include <QtCore/QString>

/** Text from a client that is written to a log. */
class NWEBAPI_EXPORT NwaLogText
{
public:
    /**
     * @a text with each control character (U+0000 to U+001F, U+007F to U+009F) written as "\xNN" with two
     * lower-case hexadecimal digits, so that a client cannot end a line of the log and forge another.
     */
    static QString fromClient(const QString& text);

private:
    NwaLogText();
};

#endif
