#ifndef NBASE_NSWUPDATE_H
#define NBASE_NSWUPDATE_H

/**
 * Values of the SWUpdate daemon (https://sbabic.github.io/swupdate/). They are passed on as the daemon sends them,
 * so that a value that is not listed here may occur with a newer daemon.
 */
namespace NSWUpdate {

/** What the daemon is doing, or the result of its last installation. */
enum Status : int {
    StatusIdle = 0,
    StatusStart = 1,
    StatusRun = 2,
    StatusSuccess = 3,
    StatusFailure = 4,
    StatusDownload = 5,
    StatusDone = 6,
    StatusSubprocess = 7,
    StatusProgress = 8
};

/** The interface of the daemon through which an installation was started. */
enum Source : int {
    SourceUnknown = 0,
    SourceWebserver = 1,
    SourceSuricatta = 2,
    SourceDownloader = 3,
    SourceLocal = 4
};

} // namespace NSWUpdate

#endif
