"""The user's own folder for sockets of running programs."""

import os
import stat

_PRIVATE = 0o700


def runtime_folder():
    """Makes sure of the folder and gives its path; an OSError where others could reach into it.

    It lies in the session's runtime folder ($XDG_RUNTIME_DIR), else beside temporary files.
    """
    user = os.getuid()
    base = os.environ.get("XDG_RUNTIME_DIR", "")
    if os.path.isabs(base) and _is_own(base):
        folder = os.path.join(base, "vantrace")
    else:
        folder = f"/tmp/vantrace-{user}"
    try:
        os.mkdir(folder, _PRIVATE)
    except FileExistsError:
        pass
    if not _is_own(folder):
        raise PermissionError(1, "belongs to somebody else, or others may enter it", folder)
    return folder


def _is_own(folder):
    try:
        found = os.lstat(folder)
    except OSError:
        return False
    private = stat.S_IMODE(found.st_mode) & 0o077 == 0
    return stat.S_ISDIR(found.st_mode) and found.st_uid == os.getuid() and private
