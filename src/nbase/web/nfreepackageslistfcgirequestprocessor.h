#ifndef NBASE_NFREEPACKAGESLISTFCGIREQUESTPROCESSOR_H
#define NBASE_NFREEPACKAGESLISTFCGIREQUESTPROCESSOR_H

#include <nbase/nbaseglobal.h>

#include <nwebapi/nwastandardfcgirequestprocessor.h>

#include <QtCore/QScopedPointer>
#include <QtCore/QVariant>

class NFreePackage;
class NFreePackagesList;

/**
 * Answers GET requests with the list of open-source packages as JSON: one member for each package, with its
 * version, licences, the texts of its licence files as they are on disk now, and the origin of its source.
 *
 * The texts of a whole firmware may be larger than a device's memory. The document is therefore produced while the
 * client takes it (see NwaStreamedReply), with the licence files read in pieces.
 */
class NBASE_EXPORT NFreePackagesListFcgiRequestProcessor : public NwaStandardFcgiRequestProcessor
{
public:
    /**
     * @param identifier finds the session of a request; not owned.
     * @param list what is served; not owned, and must outlive the processor.
     */
    NFreePackagesListFcgiRequestProcessor(
        NwaAbstractFcgiSessionIdentifier* identifier, const NFreePackagesList* list);

    /** Ends replies that are still being written where they are. */
    ~NFreePackagesListFcgiRequestProcessor() override;

    /** The document of one package, all its licence texts included. */
    QVariantMap freePackageToVariantMap(const NFreePackage* package) const;

    /** The whole document at once, by the names of the packages. */
    QVariantMap freePackagesListToVariantMap() const;

protected:
    void processGetMethod(NwaFcgiRequest* request) override;

public:
    /** Whether the user of @a session may read the list: every user, unless a derived class says otherwise. */
    virtual bool canReadFreePackagesListWithSession(NwaWebSession* session) const;

private:
    Q_DISABLE_COPY(NFreePackagesListFcgiRequestProcessor)

    class Replies;

    const NFreePackagesList* m_list;
    QScopedPointer<Replies> m_replies;
};

#endif
