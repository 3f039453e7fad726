#ifndef NBASE_NNETWORKPROXYCHOICE_H
#define NBASE_NNETWORKPROXYCHOICE_H

#include <nbase/nbaseglobal.h>

#include <QtCore/QString>
#include <QtNetwork/QNetworkProxy>

/** The proxy of a request and the rule that decided on it, see NNetworkProxyParameters::chooseProxy(). */
struct NBASE_EXPORT NNetworkProxyChoice
{
    /** The rule that has decided. */
    enum Reason {
        ProxyDisabled,       ///< no proxy, because the device uses none
        ExceptionCoversHost, ///< no proxy, because the host is an exception
        ServerOfProtocol,    ///< the server that is set for the protocol
        HttpServerInstead,   ///< the HTTP server, because the protocol has no server of its own
        NoServer             ///< no proxy, because there is no HTTP server either
    };

    NNetworkProxyChoice();

    QNetworkProxy proxy; ///< QNetworkProxy::NoProxy for none
    Reason reason;       ///< why it is this one

    /**
     * The exception that covers the host, null with other reasons. If several do, it is the first one in the list,
     * but "local" comes before other names.
     */
    QString exception;
};

#endif
