#ifndef NBASE_NNETWORKPROXYPARAMETERSACCESSOR_H
#define NBASE_NNETWORKPROXYPARAMETERSACCESSOR_H

#include <nbase/nbaseglobal.h>
#include <nbase/network/nnetworkproxyparameters.h>

#include <QtCore/QVariant>

class NwaWebSession;

/**
 * What a web service may do with the proxy settings, and for which sessions. Every session may do everything,
 * unless a derived class says otherwise.
 */
class NBASE_EXPORT NNetworkProxyParametersAccessor
{
public:
    /** @param parameters the settings; not owned, and must outlive the accessor. */
    explicit NNetworkProxyParametersAccessor(NNetworkProxyParameters* parameters);
    virtual ~NNetworkProxyParametersAccessor();

    /** Whether the user of @a session may read the settings. */
    virtual bool canReadParametersWithSession(const NwaWebSession* session) const;

    /** Whether the settings that the user of @a session reads include user names and passwords. */
    virtual bool canReadCriticalParametersWithSession(const NwaWebSession* session) const;

    /** Whether the user of @a session may change the settings. */
    virtual bool canSetParametersWithSession(const NwaWebSession* session) const;

    /** The settings as a JSON object, see NNetworkProxyParameters::networkProxyAsVariantMap(). */
    virtual QVariant parametersAsVariant(const NwaWebSession* session) const;

    /**
     * Replaces all settings by those of a JSON object. Nothing is changed on failure.
     * @param invalidParameter set to whether @a document is refused: it has not the form of such an object, or a
     * server is invalid.
     * @return false when @a document is refused or cannot be stored.
     */
    virtual bool setParametersFromVariant(const QVariant& document, bool& invalidParameter) const;

    /** Reads the settings from a JSON object, see NNetworkProxyParameters::extractParametersFromVariant(). */
    virtual bool
    extractParametersFromVariant(const QVariant& document, NNetworkProxyParameters::Parameters& parameters) const;

private:
    Q_DISABLE_COPY(NNetworkProxyParametersAccessor)

    NNetworkProxyParameters* m_parameters;
};

#endif
