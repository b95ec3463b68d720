// The one table that turns Linux errors into NT statuses. Holds no state.
#include "errors.h"

#include <algorithm>
#include <iterator>

namespace posixfs {
namespace {

struct ErrorRow {
    int Error;
    NTSTATUS Status;
};

constexpr ErrorRow kErrors[] = {
    {ENOENT, STATUS_OBJECT_NAME_NOT_FOUND},
    {ENOTDIR, STATUS_OBJECT_PATH_NOT_FOUND},
    {ELOOP, STATUS_OBJECT_PATH_NOT_FOUND}, // a link inside a path: whoever walks the path has to ask for its target
    {EEXIST, STATUS_OBJECT_NAME_COLLISION},
    {ENAMETOOLONG, STATUS_NAME_TOO_LONG},
    {EISDIR, STATUS_FILE_IS_A_DIRECTORY},
    {ENOTEMPTY, STATUS_DIRECTORY_NOT_EMPTY},
    {EXDEV, STATUS_NOT_SAME_DEVICE},
    {EMLINK, STATUS_TOO_MANY_LINKS},
    {EACCES, STATUS_ACCESS_DENIED},
    {EPERM, STATUS_ACCESS_DENIED},
    {EROFS, STATUS_MEDIA_WRITE_PROTECTED},
    {EBUSY, STATUS_SHARING_VIOLATION},
    {ETXTBSY, STATUS_SHARING_VIOLATION},
    {EAGAIN, STATUS_FILE_LOCK_CONFLICT},
    {ENOSPC, STATUS_DISK_FULL},
    {EDQUOT, STATUS_DISK_FULL},
    {EFBIG, STATUS_DISK_FULL},
    {EMFILE, STATUS_TOO_MANY_OPENED_FILES},
    {ENFILE, STATUS_TOO_MANY_OPENED_FILES},
    {ENOMEM, STATUS_INSUFFICIENT_RESOURCES},
    {ENOBUFS, STATUS_INSUFFICIENT_RESOURCES},
    {EINVAL, STATUS_INVALID_PARAMETER},
    {EOVERFLOW, STATUS_INTEGER_OVERFLOW},
    {EFAULT, STATUS_ACCESS_VIOLATION},
    {EBADF, STATUS_INVALID_HANDLE},
    {EINTR, STATUS_CANCELLED},
    {EOPNOTSUPP, STATUS_NOT_SUPPORTED},
    {ENOSYS, STATUS_NOT_SUPPORTED},
    {ENOTTY, STATUS_NOT_SUPPORTED},
    {ENODATA, STATUS_NONEXISTENT_EA_ENTRY},
    {E2BIG, STATUS_EA_TOO_LARGE},
    {ERANGE, STATUS_EA_TOO_LARGE},
    {EIO, STATUS_IO_DEVICE_ERROR},
    {EREMOTEIO, STATUS_IO_DEVICE_ERROR},
    {EUCLEAN, STATUS_FILE_CORRUPT_ERROR},
    {EBADMSG, STATUS_FILE_CORRUPT_ERROR},
    {ENODEV, STATUS_NO_SUCH_DEVICE},
    {ENXIO, STATUS_NO_SUCH_DEVICE},
    {ESTALE, STATUS_FILE_CLOSED}, // a network file system has forgotten the file
    {ETIMEDOUT, STATUS_IO_TIMEOUT},
    {ENOTCONN, STATUS_DEVICE_NOT_READY}, // the server of a mounted file system is gone
    {ECONNABORTED, STATUS_DEVICE_NOT_READY},
    {ECONNREFUSED, STATUS_DEVICE_NOT_READY},
    {ECONNRESET, STATUS_DEVICE_NOT_READY},
    {EHOSTDOWN, STATUS_DEVICE_NOT_READY},
    {EHOSTUNREACH, STATUS_DEVICE_NOT_READY},
    {ENETUNREACH, STATUS_DEVICE_NOT_READY},
    {ENOKEY, STATUS_ACCESS_DENIED}, // encrypted, and the key is not loaded
};

} // namespace

NTSTATUS StatusOf(int error)
{
    const auto row = std::find_if(std::begin(kErrors), std::end(kErrors),
                                  [error](const ErrorRow& candidate) { return candidate.Error == error; });
    return row == std::end(kErrors) ? STATUS_UNEXPECTED_IO_ERROR : row->Status;
}

NTSTATUS LastError() { return StatusOf(errno); }

} // namespace posixfs
