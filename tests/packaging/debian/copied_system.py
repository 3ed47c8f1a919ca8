"""A copy of the running system that may be changed: an overlay in its own mount namespace."""

import os
import pathlib
import tempfile

import stack


# Independent of the caller's environment.
ENVIRONMENT = {
    "PATH": "/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin",
    "HOME": "/root",
    "LC_ALL": "C",
    "DEBIAN_FRONTEND": "noninteractive",
}


class CopiedSystem:
    """Needs root and a separate process; ends with the process. Its /run and /tmp are empty."""

    def __init__(self):
        stack.unshare_mounts()
        base = pathlib.Path(tempfile.mkdtemp(prefix="zelta-system-"))
        self._base = base
        self.changes = base / "changes"
        self.root = base / "root"
        try:
            self._mount_all(base / "work")
        except stack.NoMounts:
            self.close()
            raise

    def _mount_all(self, work):
        stack.mount("-t", "tmpfs", "tmpfs", self._base)
        for folder in (self.changes, self.root, work):
            folder.mkdir()
        stack.mount("-t", "overlay", "overlay", "-o",
                    f"lowerdir=/,upperdir={self.changes},workdir={work}", self.root)
        for name in ("proc", "dev"):
            stack.mount("--rbind", f"/{name}", self.root / name)
        for name in ("run", "tmp"):
            stack.mount("-t", "tmpfs", "tmpfs", self.root / name)

    def bring(self, folder):
        """A copy of a folder, at the same place; the system's may be another mount's."""
        changes, work = self._base / "brought", self._base / "brought-work"
        for path in (changes, work, self.path(folder)):
            path.mkdir(parents=True, exist_ok=True)
        stack.mount("-t", "overlay", "overlay", "-o",
                    f"lowerdir={folder},upperdir={changes},workdir={work}", self.path(folder))

    def close(self):
        stack.run("umount", "--recursive", "--lazy", self._base, check=False)
        self._base.rmdir()

    def path(self, name):
        return self.root / str(name).lstrip("/")

    def run(self, *command, **options):
        return stack.run("chroot", self.root, *command, env=ENVIRONMENT, **options)

    def start(self, *command):
        return stack.Process(["chroot", self.root, *command], self._base / "output.log",
                             ENVIRONMENT)

    def output(self):
        """The output of all programs in the background."""
        return (self._base / "output.log").read_text(errors="replace")

    def new_paths(self):
        """The files that only the copy has; of a new folder, only the folder itself."""
        found = []
        for folder, folders, files in os.walk(self.changes):
            inside = pathlib.Path("/") / pathlib.Path(folder).relative_to(self.changes)
            for name in [*files, *folders]:
                path = inside / name
                # A character device here says that something of the system's was removed.
                if not os.path.lexists(path) and self.path(path).exists():
                    found.append(str(path))
            folders[:] = [name for name in folders if os.path.lexists(inside / name)]
        return sorted(found)
