#include <nbase/firmware/progress_ipc.h>

#include <nsystem/nfiledescriptor_p.h>
#include <nsystem/nsystemcall_p.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

const useconds_t ConnectionRetryInterval = 10 * 1000;

char defaultProgressPath[] = "/tmp/swupdateprog";

NFileDescriptor connectTo(const char* path)
{
    struct sockaddr_un address;
    memset(&address, 0, sizeof(address));
    address.sun_family = AF_UNIX;
    if (strlen(path) >= sizeof(address.sun_path))
        return NFileDescriptor();
    memcpy(address.sun_path, path, strlen(path));

    NFileDescriptor socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const struct sockaddr* const name = reinterpret_cast<const struct sockaddr*>(&address);
    if (!socket.isOpen() ||
        NSystem::retried([&]() { return ::connect(socket.number(), name, sizeof(address)); }) != 0)
        return NFileDescriptor();
    return socket;
}

// A program that writes its standard output to a pipe reports the state of the connection at once.
void report(const char* text)
{
    fputs(text, stdout);
    fflush(stdout);
}

} // namespace

static_assert(sizeof(progress_msg) == 2400, "the record has the layout of the daemon");

char* SOCKET_PROGRESS_PATH = defaultProgressPath;

int progress_ipc_connect(bool reconnect)
{
    report("Trying to connect to SWUpdate...\n");
    for (;;) {
        NFileDescriptor socket = connectTo(SOCKET_PROGRESS_PATH);
        if (socket.isOpen()) {
            printf("Connected to SWUpdate via %s\n", SOCKET_PROGRESS_PATH);
            fflush(stdout);
            return socket.release();
        }
        if (!reconnect) {
            // Intended, although harsh in a library: programs of this interface rely on it.
            fprintf(stderr, "cannot communicate with SWUpdate via %s\n", SOCKET_PROGRESS_PATH);
            exit(EXIT_FAILURE);
        }
        ::usleep(ConnectionRetryInterval);
    }
}

int progress_ipc_receive(int* fd, progress_msg* msg)
{
    if (NSystem::readAll(*fd, msg, sizeof(*msg)) == ssize_t(sizeof(*msg)))
        return int(sizeof(*msg));
    report("Connection closing..\n");
    NFileDescriptor(*fd).close();
    *fd = -1;
    return -1;
}
