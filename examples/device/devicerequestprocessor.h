#ifndef DEMODEVICE_DEVICEREQUESTPROCESSOR_H
#define DEMODEVICE_DEVICEREQUESTPROCESSOR_H

#include "explainingrequestprocessor.h"

class NSysLog;
class TimeZoneSetting;

/**
 * Serves the state of the device.
 *
 * - GET answers
 *
 *       {"hostName": "box", "library": {"name": "Nolvar base", "version": "1.0.0"},
 *        "time": "2024-01-05T12:30:00", "utcOffset": 3600, "timeZone": {"name": "Europe/Paris", "code":
 * "CET-1..."}, "uptime": 86400, "memory": {"total": 67108864, "available": 33554432}, "log": {"programs":
 * ["dhcpd", "lighttpd"], "lines": [{"time": "Jan  5 12:29:58", "level": "err", "program": "dhcpd", "text": "no
 * lease"}]}}
 *
 *   with the local time and its offset from UTC in seconds, the stored time zone or null, the uptime in seconds,
 * the memory in bytes, the programs that are in the system log, and its latest lines, the newest first. What the
 * system does not report is null. "?level=" names the least severe level of the lines, "warn" without it;
 * "?program=" the only program whose lines are wanted. "?passive=yes" is for a page that asks by itself: it does
 * not keep the session alive.
 * - PUT with {"timeZone": "Europe/Paris"} stores the time zone, and answers {"timeZone": ...} as it is stored
 * then.
 *
 * A refusal is a document as well: {"message": ...}, for a person to read.
 */
class DeviceRequestProcessor : public ExplainingRequestProcessor
{
public:
    enum Limit { MaximumLineCount = 100 };

    /** All must live longer. */
    DeviceRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, const NSysLog* log, TimeZoneSetting* timeZone);

protected:
    void processGetMethod(NwaFcgiRequest* request) override;
    void processPutMethod(NwaFcgiRequest* request) override;

private:
    const NSysLog* m_log;
    TimeZoneSetting* m_timeZone;
};

#endif
