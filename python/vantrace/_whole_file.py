"""Files that are whole or not there."""

import os


def write_whole(path, content):
    """Writes bytes beside the path and renames them to it."""
    import tempfile

    folder, name = os.path.split(os.path.abspath(path))
    descriptor, beside = tempfile.mkstemp(prefix=f".{name[:50]}.", dir=folder)
    try:
        with os.fdopen(descriptor, "wb") as file:
            file.write(content)
        os.chmod(beside, 0o666 & ~_umask())
        os.replace(beside, path)
    except BaseException:
        os.unlink(beside)
        raise


def _umask():
    mask = os.umask(0o077)
    os.umask(mask)
    return mask
