#include "eventsrequestprocessor.h"

#include "timetable.h"

#include <nwebapi/nwajsonutilities.h>

#include <QtCore/QRegExp>

namespace {

const int MaximumTitleLength = 60;

const char TitleRule[] = "The title must be a text of 1 to 60 printable characters in one line.";
const char KindRule[] = "The kind must be \"event\" or \"slot\".";
const char DaysRule[] = "The days must be a list of numbers from 1 (Monday) to 7 (Sunday), at least one.";
const char TimeRule[] = "The time must be hours and minutes, from \"00:00\" to \"23:59\".";
const char StartRule[] = "The start must be hours and minutes, from \"00:00\" to \"23:59\".";
const char EndRule[] = "The end must be hours and minutes, from \"00:00\" to \"23:59\".";

QString key(const char* name)
{
    return QString::fromLatin1(name);
}

bool isTitleCharacter(QChar character)
{
    const QChar::Category category = character.category();
    return category != QChar::Separator_Line && category != QChar::Separator_Paragraph &&
           (character.isPrint() || category == QChar::Other_Surrogate);
}

bool isTitle(const QString& text)
{
    int length = 0;
    for (int index = 0; index < text.size(); ++index) {
        if (!isTitleCharacter(text.at(index)))
            return false;
        // In UTF-16 some characters, for example emoji, take two units.
        length += text.at(index).isLowSurrogate() ? 0 : 1;
    }
    return !text.isEmpty() && length <= MaximumTitleLength;
}

bool readTime(const QVariantMap& object, const char* name, QTime& time)
{
    QString text;
    if (!NwaJsonUtilities::stringValue(object, key(name), text))
        return false;
    // The conversion accepts other forms, which differ when they are converted back.
    time = QTime::fromString(text, QString::fromLatin1("hh:mm"));
    return time.isValid() && time.toString(QString::fromLatin1("hh:mm")) == text;
}

bool readDay(const QVariant& value, Qt::DayOfWeek& day)
{
    QVariantMap object;
    object.insert(key("day"), value);
    unsigned int number = 0;
    if (!NwaJsonUtilities::integerValue(object, key("day"), number) || number < Qt::Monday || number > Qt::Sunday)
        return false;
    day = static_cast<Qt::DayOfWeek>(number);
    return true;
}

bool readDays(const QVariantMap& object, QSet<Qt::DayOfWeek>& days)
{
    QVariantList list;
    if (!NwaJsonUtilities::listValue(object, key("days"), list))
        return false;
    for (int index = 0; index < list.size(); ++index) {
        Qt::DayOfWeek day = Qt::Monday;
        if (!readDay(list.at(index), day))
            return false;
        days.insert(day);
    }
    return !days.isEmpty();
}

// Returns the rule that the entry breaks, or null.
const char* readEntry(const QVariantMap& object, EntryPlan& plan)
{
    QString title;
    if (!NwaJsonUtilities::stringValue(object, key("title"), title) || !isTitle(title.trimmed()))
        return TitleRule;
    plan.title = title.trimmed();

    QString kind;
    if (!NwaJsonUtilities::stringValue(object, key("kind"), kind) ||
        (kind != QLatin1String("event") && kind != QLatin1String("slot")))
        return KindRule;
    plan.kind = kind == QLatin1String("slot") ? EntryPlan::Slot : EntryPlan::Event;

    if (!readDays(object, plan.days))
        return DaysRule;
    if (plan.kind == EntryPlan::Event)
        return readTime(object, "time", plan.start) ? nullptr : TimeRule;
    if (!readTime(object, "start", plan.start))
        return StartRule;
    return readTime(object, "end", plan.end) ? nullptr : EndRule;
}

QVariantList daysToVariant(const QSet<Qt::DayOfWeek>& days)
{
    QVariantList list;
    for (int day = Qt::Monday; day <= Qt::Sunday; ++day) {
        if (days.contains(static_cast<Qt::DayOfWeek>(day)))
            list.append(day);
    }
    return list;
}

QVariantMap entryToVariant(PlannedEntry* entry)
{
    const EntryPlan& plan = entry->plan();
    const QString format = QString::fromLatin1("hh:mm");
    QVariantMap object;
    object.insert(key("id"), entry->id());
    object.insert(key("title"), plan.title);
    object.insert(key("days"), daysToVariant(plan.days));
    if (plan.kind == EntryPlan::Event) {
        object.insert(key("kind"), key("event"));
        object.insert(key("time"), plan.start.toString(format));
    } else {
        object.insert(key("kind"), key("slot"));
        object.insert(key("start"), plan.start.toString(format));
        object.insert(key("end"), plan.end.toString(format));
        object.insert(key("active"), entry->isActive());
    }
    return object;
}

QVariantList entriesToVariant(const Timetable& timetable)
{
    QVariantList list;
    for (PlannedEntry* entry : timetable.entries())
        list.append(entryToVariant(entry));
    return list;
}

QString happeningName(PlannedEntry::Happening happening)
{
    switch (happening) {
    case PlannedEntry::Started:
        return key("started");
    case PlannedEntry::Ended:
        return key("ended");
    case PlannedEntry::Triggered:
        break;
    }
    return key("triggered");
}

QVariantList firingsToVariant(const Timetable& timetable, quint64 since)
{
    QVariantList list;
    for (const Timetable::Firing& firing : timetable.firings()) {
        if (firing.number <= since)
            continue;
        QVariantMap object;
        object.insert(key("number"), firing.number);
        object.insert(key("time"), firing.time.toString(Qt::ISODate));
        object.insert(key("entry"), firing.entryId);
        object.insert(key("title"), firing.title);
        object.insert(key("happening"), happeningName(firing.happening));
        list.append(object);
    }
    return list;
}

bool isNumber(const QString& text)
{
    return QRegExp(QString::fromLatin1("[0-9]+")).exactMatch(text);
}

// Reads the number in the parameter @a name. Returns whether there is exactly one.
bool readNumber(const NwaFcgiRequest* request, const char* name, quint64& number)
{
    QString text;
    bool ok = false;
    if (request->singleQueryParameter(key(name), text) && isNumber(text))
        number = text.toULongLong(&ok);
    return ok;
}

// Returns 0, which is no entry's id, when there is none.
unsigned int readId(const NwaFcgiRequest* request)
{
    quint64 number = 0;
    if (!readNumber(request, "id", number) || number > 0xFFFFFFFFu)
        return 0;
    return static_cast<unsigned int>(number);
}

} // namespace

EventsRequestProcessor::EventsRequestProcessor(NwaAbstractFcgiSessionIdentifier* identifier, Timetable* timetable)
    : ExplainingRequestProcessor(identifier)
    , m_timetable(timetable)
{
    setServedMethods(GetMethod | PostMethod | PutMethod | DeleteMethod);
}

void EventsRequestProcessor::processGetMethod(NwaFcgiRequest* request)
{
    const bool asksForNews = request->queryParameters().contains(key("since"));
    if (!requireSession(request, asksForNews ? PassiveRequest : ActiveRequest))
        return;
    quint64 since = 0;
    if (asksForNews && !readNumber(request, "since", since))
        return refuse(
            request, NwaFcgiRequest::BadRequest,
            QString::fromLatin1("\"since\" must be the number of an earlier answer."));

    // A number that has not been given out yet is from before a restart: everything is new.
    const bool hasEverything = asksForNews && since == m_timetable->lastNumber();
    if (since > m_timetable->lastNumber())
        since = 0;
    QVariantMap document;
    document.insert(key("number"), m_timetable->lastNumber());
    document.insert(key("time"), QDateTime::currentDateTime().toString(Qt::ISODate));
    document.insert(key("firings"), firingsToVariant(*m_timetable, since));
    if (!hasEverything)
        document.insert(key("entries"), entriesToVariant(*m_timetable));
    sendJsonReply(request, document);
}

void EventsRequestProcessor::processPostMethod(NwaFcgiRequest* request)
{
    EntryPlan plan;
    if (!readPlan(request, plan))
        return;
    PlannedEntry* const entry = m_timetable->add(plan);
    if (!entry)
        return refuse(
            request, NwaFcgiRequest::Conflict,
            QString::fromLatin1("There are %1 entries already; remove one first.")
                .arg(Timetable::MaximumEntryCount));
    sendJsonReply(request, entryToVariant(entry));
}

void EventsRequestProcessor::processPutMethod(NwaFcgiRequest* request)
{
    EntryPlan plan;
    if (!readPlan(request, plan))
        return;
    PlannedEntry* const entry = m_timetable->change(readId(request), plan);
    if (!entry)
        return refuseUnknownEntry(request);
    sendJsonReply(request, entryToVariant(entry));
}

void EventsRequestProcessor::processDeleteMethod(NwaFcgiRequest* request)
{
    if (!requireSession(request))
        return;
    if (!m_timetable->remove(readId(request)))
        return refuseUnknownEntry(request);
    sendJsonReply(request, QVariantMap());
}

bool EventsRequestProcessor::readPlan(NwaFcgiRequest* request, EntryPlan& plan)
{
    QVariant document;
    if (!requireSession(request) || !requireJsonContent(request, document))
        return false;
    QVariantMap object;
    const char* brokenRule = "An entry must be a JSON object.";
    if (NwaJsonUtilities::objectValue(document, object))
        brokenRule = readEntry(object, plan);
    if (brokenRule)
        refuse(request, NwaFcgiRequest::BadRequest, QString::fromLatin1(brokenRule));
    return !brokenRule;
}

void EventsRequestProcessor::refuseUnknownEntry(NwaFcgiRequest* request)
{
    refuse(request, NwaFcgiRequest::NotFound, QString::fromLatin1("There is no such entry (any more)."));
}
