/* A minimal FastCGI program with libfcgi: it answers "<script name>/<size>" with that many bytes.
 *
 *     fcgi_libfcgi <socket> */

#include <fcgiapp.h>

#include <stdlib.h>
#include <string.h>

enum { LargestDocument = 16 * 1000 * 1000, Backlog = 128 };

int main(int argc, char** argv)
{
    FCGX_Request request;
    char* document = malloc(LargestDocument);
    if (argc != 2 || !document || FCGX_Init() != 0)
        return 1;
    memset(document, 'd', LargestDocument);
    if (FCGX_InitRequest(&request, FCGX_OpenSocket(argv[1], Backlog), 0) != 0)
        return 1;
    while (FCGX_Accept_r(&request) == 0) {
        const char* name = FCGX_GetParam("PATH_INFO", request.envp);
        const int size = name ? atoi(name + 1) : 0;
        FCGX_FPrintF(
            request.out, "Content-Type: application/json; charset=utf-8\r\nContent-Length: %d\r\n\r\n", size);
        FCGX_PutStr(document, size, request.out);
    }
    return 0;
}
