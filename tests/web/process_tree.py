"""The processes that a test program has started, directly or not, found without looking at any other process."""

import ctypes
import glob
import os
import signal
import sys

# prctl(2)
PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36


def is_live(process):
    try:
        with open(f"/proc/{process}/stat", encoding="ascii", errors="replace") as file:
            return file.read().rpartition(") ")[2][0] != "Z"
    except (FileNotFoundError, ProcessLookupError):  # ended before the file was opened, or read
        return False


def descendants(process):
    """The ids of all processes below a process."""
    for path in glob.glob(f"/proc/{process}/task/*/children"):
        try:
            with open(path, encoding="ascii") as file:
                children = file.read().split()
        except (FileNotFoundError, ProcessLookupError):  # ended before the file was opened, or read
            continue
        for child in children:
            yield int(child)
            yield from descendants(int(child))


def adopt_orphans():
    """Continues the program in a child process. Its parent adopts and reaps all processes below that lose their own parent,
    such as daemons, so that started_processes() finds them."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0) != 0:
        raise OSError(ctypes.get_errno(), "PR_SET_CHILD_SUBREAPER")
    program = os.fork()
    if program == 0:
        libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)
        return
    while True:
        process, status = os.wait()
        if process == program:
            sys.stdout.flush()
            os._exit(os.waitstatus_to_exitcode(status) & 0xff)


def started_processes():
    """The live processes that this program has started, after adopt_orphans()."""
    return [process for process in descendants(os.getppid()) if process != os.getpid() and is_live(process)]
