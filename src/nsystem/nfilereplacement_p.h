#ifndef NSYSTEM_NFILEREPLACEMENT_P_H
#define NSYSTEM_NFILEREPLACEMENT_P_H

#include <stddef.h>
#include <sys/types.h>

namespace NSystem {

/**
 * Gives the file @a path the content of @a size bytes at @a data, or leaves it as it is: the content is written to
 * a new file beside it (its name and ".new"), flushed, and renamed, and then the directory is flushed. A power cut
 * or a full disk leaves the old content or the new one, and at most a new file that the next replacement removes.
 *
 * An existing file keeps its mode and its owner; a symbolic link is followed, also to a file that does not exist
 * yet. Replacements in one directory exclude each other (see NDirectoryLock).
 * @param mode of a file that does not exist yet, before the umask.
 * @return false on failure, with errno: EISDIR or EINVAL for what exists and is no regular file, EACCES or EROFS
 * for a file that may not be written, EPERM for one whose owner cannot be kept, EWOULDBLOCK when the directory
 * stayed locked. Only when flushing the directory fails has the content been replaced nevertheless; it may be lost
 * with the power then.
 */
bool replaceFile(const char* path, const void* data, size_t size, mode_t mode = 0666);

/**
 * Removes the file @a path, or the link of that name, and what an interrupted replacement has left beside it.
 * @return whether it is gone, also when it did not exist.
 */
bool removeFile(const char* path);

} // namespace NSystem

#endif
