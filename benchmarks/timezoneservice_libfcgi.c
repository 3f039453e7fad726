/* The least that a FastCGI program can be with libfcgi: for each of a few query strings it sends the bytes of a
 * file.
 *
 *     timezoneservice_libfcgi <socket> [<query string> <file>]... */

#include <fcgiapp.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { Backlog = 128, MaximumCount = 8 };

static char* contents[MaximumCount];
static int sizes[MaximumCount];

static int load(const char* path, int index)
{
    FILE* file = fopen(path, "rb");
    if (!file)
        return 0;
    fseek(file, 0, SEEK_END);
    sizes[index] = (int)ftell(file);
    rewind(file);
    contents[index] = malloc((size_t)sizes[index]);
    const size_t size = contents[index] ? fread(contents[index], 1, (size_t)sizes[index], file) : 0;
    fclose(file);
    return size == (size_t)sizes[index];
}

int main(int argc, char** argv)
{
    FCGX_Request request;
    const int count = (argc - 2) / 2;
    if (argc < 2 || count > MaximumCount || FCGX_Init() != 0)
        return 1;
    for (int index = 0; index < count; ++index) {
        if (!load(argv[3 + 2 * index], index))
            return 1;
    }
    if (FCGX_InitRequest(&request, FCGX_OpenSocket(argv[1], Backlog), 0) != 0)
        return 1;
    while (FCGX_Accept_r(&request) == 0) {
        const char* query = FCGX_GetParam("QUERY_STRING", request.envp);
        for (int index = 0; query && index < count; ++index) {
            if (strcmp(query, argv[2 + 2 * index]) == 0)
                FCGX_PutStr(contents[index], sizes[index], request.out);
        }
    }
    return 0;
}
