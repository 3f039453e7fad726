/* Uses the progress interface from C: progressprogram <path> <reconnect> <number of records>. */

#include <nbase/firmware/progress_ipc.h>

#include <stdio.h>
#include <stdlib.h>

int main(int argc, char** argv)
{
    int socket;
    int left;
    progress_msg record;

    if (argc != 4)
        return 2;
    SOCKET_PROGRESS_PATH = argv[1];
    socket = progress_ipc_connect(atoi(argv[2]) != 0);
    for (left = atoi(argv[3]); left > 0; --left) {
        int result = progress_ipc_receive(&socket, &record);
        if (result < 0) {
            printf("%d %d\n", result, socket);
            return 3;
        }
        printf(
            "%d: %u %u %u %u %u %u %s %s %u %u %s\n", result, (unsigned)record.magic, (unsigned)record.status,
            (unsigned)record.dwl_percent, (unsigned)record.nsteps, (unsigned)record.cur_step,
            (unsigned)record.cur_percent, record.cur_image, record.hnd_name, (unsigned)record.source,
            (unsigned)record.infolen, record.info);
    }
    return 0;
}
