#include <nbase/web/nbuildrootuclibctimezonedatabasefcgiservice.h>

#include <nbase/web/nbuildrootuclibctimezonedatabasefcgirequestprocessor.h>

NBuildrootUclibcTimeZoneDatabaseFcgiService::NBuildrootUclibcTimeZoneDatabaseFcgiService(
    NwaAbstractFcgiRequestProcessor* processor, QObject* parent)
    : NwaStandardFcgiService(processor, parent)
{
}

NBuildrootUclibcTimeZoneDatabaseFcgiService::NBuildrootUclibcTimeZoneDatabaseFcgiService(
    NwaAbstractFcgiSessionIdentifier* identifier, const NBuildrootUclibcTimeZoneDatabase* database,
    QObject* parent)
    : NBuildrootUclibcTimeZoneDatabaseFcgiService(
          new NBuildrootUclibcTimeZoneDatabaseFcgiRequestProcessor(identifier, database), parent)
{
}

NBuildrootUclibcTimeZoneDatabaseFcgiService::~NBuildrootUclibcTimeZoneDatabaseFcgiService() {}
