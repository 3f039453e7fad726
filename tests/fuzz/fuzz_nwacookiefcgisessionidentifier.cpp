#include <nwebapi/nwacookiefcgisessionidentifier.h>
#include <nwebapi/nwafcgirequest.h>
#include <nwebapi/nwahttpcontentheader.h>
#include <nwebapi/nwawebsession.h>
#include <nwebapi/nwawebsessionmanager.h>

#include <sstream>
#include <stddef.h>
#include <stdint.h>
#include <stdlib.h>

// The input is the cookies, in which "@" is replaced by the identifier of a session, and the texts of a header.
// Nothing in it may add a line to the header, or find a session that it does not name.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), int(size));
    NwaWebSessionManager manager;
    NwaWebSession* session = manager.createSession();
    QByteArray cookies = input;
    cookies.replace("@", session->id().toString().mid(1, 36).toLatin1());

    NwaCgiRequest::Variables variables;
    variables.insert("HTTP_COOKIE", cookies);
    NwaFcgiRequest request(nullptr, variables);
    NwaWebSession* found = NwaCookieFcgiSessionIdentifier(&manager).identifySession(&request, false);
    if (found && (found != session || !input.contains('@')))
        abort();

    NwaHttpContentHeader header(QString::fromLatin1(input), QString::fromLatin1(input));
    header.addField("A" + input, input);
    std::ostringstream stream;
    stream << header;
    const std::string text = stream.str();
    const QByteArray bytes(text.data(), int(text.size()));
    if (bytes.count('\n') != 3 || bytes.count('\r') != 3 || !bytes.endsWith("\r\n\r\n"))
        abort();
    return 0;
}
