"""A copy of the running system with systemd as its first process, in its own namespaces."""

import os
import pathlib
import subprocess

import stack
from copied_system import ENVIRONMENT, CopiedSystem

# Services that would touch the machine's own kernel and devices.
MASKED = ("systemd-binfmt.service", "systemd-modules-load.service", "systemd-sysctl.service",
          "systemd-udev-trigger.service", "systemd-udevd.service", "proc-sys-fs-binfmt_misc.automount",
          "systemd-udevd-control.socket", "systemd-udevd-kernel.socket")


class BootedSystem(CopiedSystem):
    """Commands run inside, beside systemd. `problem` says why that ended at once, or is empty."""

    def __init__(self):
        self._first = None
        super().__init__()
        for name in MASKED:
            unit = self.path("/etc/systemd/system") / name
            unit.unlink(missing_ok=True)
            unit.symlink_to("/dev/null")
        # Images for containers forbid services there.
        self.path("/usr/sbin/policy-rc.d").unlink(missing_ok=True)
        script = (f"mount -t proc proc {self.root}/proc && "
                  f"mount -t cgroup2 cgroup2 {self.root}/sys/fs/cgroup && "
                  f"exec chroot {self.root} /lib/systemd/systemd --system --unit=basic.target")
        self._first = stack.Process(
            ["unshare", "--pid", "--fork", "--kill-child", "--mount", "--uts", "--ipc", "--cgroup",
             "sh", "-c", script], self._base / "systemd.log", {**ENVIRONMENT, "container": "other"})
        self.problem = self._wait_until_up()

    def _mount_all(self, work):
        super()._mount_all(work)
        stack.mount("--rbind", "/sys", self.root / "sys")

    def _wait_until_up(self):
        def is_up():
            if self._first.process.poll() is not None:
                return True
            return self.run("systemctl", "is-active", "basic.target", check=False).returncode == 0

        try:
            stack.wait_until(is_up, "systemd")
        except AssertionError:  # slow or stuck, which no system is meant to be
            print((self._base / "systemd.log").read_text(errors="replace")[-4000:])
            self.close()
            raise
        if self._first.process.poll() is None:
            return ""
        lines = (self._base / "systemd.log").read_text(errors="replace").split("\n")
        return next((line.strip() for line in reversed(lines) if line.strip()), "it ended")

    def _first_pid(self):
        pid = self._first.process.pid
        children = pathlib.Path(f"/proc/{pid}/task/{pid}/children").read_text().split()
        return children[0] if children else "0"

    def run(self, *command, **options):
        return stack.run("nsenter", "--target", self._first_pid(), "--mount", "--uts", "--ipc",
                         "--pid", "--cgroup", "--root", "--wd", *command, env=ENVIRONMENT, **options)

    def main_pid(self, service):
        return int(self.run("systemctl", "show", "--property", "MainPID", "--value",
                            service).stdout)

    def is_active(self, service):
        return self.run("systemctl", "is-active", service, check=False).stdout.strip() == "active"

    def close(self):
        if self._first is not None:
            self._first.process.kill()
            self._first.process.wait()
        super().close()
