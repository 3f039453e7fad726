#ifndef NBASE_PROGRESS_IPC_H
#define NBASE_PROGRESS_IPC_H

/*
 * The progress interface of the SWUpdate daemon for programs that read it themselves, from C or C++. It has the
 * records of 2400 bytes that daemons up to 2020.04 send. NSWUpdateProgressClient works without these functions.
 */

#ifdef __cplusplus
#include <nbase/nbaseglobal.h>
#else
#include <stdbool.h>

#define NBASE_EXPORT __attribute__((visibility("default")))
#endif

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** A record of the progress socket, in the byte order of the daemon. */
typedef struct progress_msg
{
    uint32_t magic;       /**< not checked */
    uint32_t status;      /**< a value of NSWUpdate::Status */
    uint32_t dwl_percent; /**< percentage of the download */
    uint32_t nsteps;      /**< number of steps */
    uint32_t cur_step;    /**< current step */
    uint32_t cur_percent; /**< percentage of the current step */
    char cur_image[256];  /**< name of the image that is being installed */
    char hnd_name[64];    /**< name of the handler that installs it */
    uint32_t source;      /**< a value of NSWUpdate::Source */
    uint32_t infolen; /**< length of the information; 0: there is none, and info has that of an earlier record */
    char info[2048];  /**< the information */
} progress_msg;

/**
 * The path of the progress socket, "/tmp/swupdateprog" by default. It may be set to any text that lives as long as
 * it is used here; NSWUpdateProgressClient connects to it as well.
 */
extern NBASE_EXPORT char* SOCKET_PROGRESS_PATH;

/**
 * Connects to the progress socket and reports that on standard output.
 * @param reconnect what happens when the connection fails: if true, it is tried again every 10 ms without end;
 * otherwise the failure is reported on standard error and the process ends with exit status 1.
 * @return the descriptor of the connection, which the caller closes.
 */
NBASE_EXPORT int progress_ipc_connect(bool reconnect);

/**
 * Reads a record, for which it waits, into @a msg.
 * @return its size. When the connection ends or fails first, also in the middle of a record, that is reported on
 * standard output, the descriptor @a fd is closed and set to -1, and -1 is returned.
 */
NBASE_EXPORT int progress_ipc_receive(int* fd, progress_msg* msg);

#ifdef __cplusplus
}
#endif

#endif
