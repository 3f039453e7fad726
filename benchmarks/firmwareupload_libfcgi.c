/* A minimal FastCGI program with libfcgi: it copies the body of each request to a new connection of a socket.
 *
 *     firmwareupload_libfcgi <socket> <socket of the daemon> */

#include <fcgiapp.h>

#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

enum { Backlog = 128, ControlSize = 2072, ChunkSize = 4096 };

static int write_all(int socket, const char* data, size_t size)
{
    while (size > 0) {
        const ssize_t count = write(socket, data, size);
        if (count < 0)
            return 0;
        data += count;
        size -= (size_t)count;
    }
    return 1;
}

static int connect_to(const char* path)
{
    struct sockaddr_un address = {AF_UNIX, ""};
    const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
    strncpy(address.sun_path, path, sizeof(address.sun_path) - 1);
    return connect(descriptor, (const struct sockaddr*)&address, sizeof(address)) == 0 ? descriptor : -1;
}

/* Announces an image to the daemon. */
static int exchange(int socket)
{
    char record[ControlSize] = "";
    size_t size = 0;
    if (!write_all(socket, record, sizeof(record)))
        return 0;
    while (size < sizeof(record)) {
        const ssize_t count = read(socket, record + size, sizeof(record) - size);
        if (count <= 0)
            return 0;
        size += (size_t)count;
    }
    return 1;
}

static int copy_body(FCGX_Request* request, int socket)
{
    char chunk[ChunkSize];
    int size = 0;
    while ((size = FCGX_GetStr(chunk, sizeof(chunk), request->in)) > 0) {
        if (!write_all(socket, chunk, (size_t)size))
            return 0;
    }
    return 1;
}

int main(int argc, char** argv)
{
    FCGX_Request request;
    if (argc != 3 || FCGX_Init() != 0 || FCGX_InitRequest(&request, FCGX_OpenSocket(argv[1], Backlog), 0) != 0)
        return 1;
    while (FCGX_Accept_r(&request) == 0) {
        const int socket = connect_to(argv[2]);
        if (socket < 0 || !exchange(socket) || !copy_body(&request, socket))
            return 1;
        close(socket);
        FCGX_PutS("Content-Type: application/json; charset=utf-8\r\n\r\n{\"state\":\"idle\"}", request.out);
    }
    return 0;
}
