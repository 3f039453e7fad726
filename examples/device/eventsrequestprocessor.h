#ifndef DEMODEVICE_EVENTSREQUESTPROCESSOR_H
#define DEMODEVICE_EVENTSREQUESTPROCESSOR_H

#include "explainingrequestprocessor.h"

struct EntryPlan;
class Timetable;

/**
 * Serves the timetable. An entry is
 *
 *     {"title": "Pump test", "kind": "event", "days": [1, 5], "time": "05:30"}
 *     {"title": "Heating", "kind": "slot", "days": [1, 2], "start": "06:00", "end": "22:00"}
 *
 * with 1 for Monday; replies add "id" and, for a slot, "active".
 *
 * - GET answers the device's local time, all entries, and the latest happenings, the oldest first. With "?since="
 * and the "number" of an earlier reply, it has only what has happened since, and the entries only if anything has
 *   changed. Such a request is a page's polling: it does not keep the session alive.
 * - POST adds an entry; PUT changes, and DELETE removes, the one that "?id=" names.
 *
 * The body of a refusal is {"message": ...}, for the user to read.
 */
class EventsRequestProcessor : public ExplainingRequestProcessor
{
public:
    /** @param timetable must outlive the processor. */
    EventsRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier, Timetable* timetable);

protected:
    void processGetMethod(NwaFcgiRequest* request) override;
    void processPostMethod(NwaFcgiRequest* request) override;
    void processPutMethod(NwaFcgiRequest* request) override;
    void processDeleteMethod(NwaFcgiRequest* request) override;

private:
    /** Reads the entry in the body. @return false when @a request was refused; it has been deleted then. */
    bool readPlan(NwaFcgiRequest* request, EntryPlan& plan);

    static void refuseUnknownEntry(NwaFcgiRequest* request);

    Timetable* m_timetable;
};

#endif
