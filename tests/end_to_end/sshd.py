"""A test's own sshd, and users for it, in the test's mount namespace."""

import os
import pathlib
import socket
import subprocess
import threading

from stack import run

SSHD = "/usr/sbin/sshd"
FIRST_ID = 64990  # of the users and groups


def add_users(*users, group=None, members=()):
    """For this process' mount namespace only; the group is made if there is none."""
    lines = {"/etc/passwd": [], "/etc/shadow": [], "/etc/group": []}
    for number, user in enumerate(users, FIRST_ID):
        lines["/etc/passwd"].append(f"{user}:x:{number}:{number}::/:/bin/sh\n")
        lines["/etc/shadow"].append(f"{user}:*:19000::::::\n")
    if group:
        lines["/etc/group"].append(f"{group}:x:{FIRST_ID - 1}:{','.join(members)}\n")
    for path, added in lines.items():
        kept = [line for line in pathlib.Path(path).read_text().splitlines(keepends=True)
                if not (group and path == "/etc/group" and line.startswith(f"{group}:"))]
        copy = pathlib.Path("/run", os.path.basename(path))
        copy.write_text("".join(kept + added))
        copy.chmod(0o644)
        run("mount", "--bind", copy, path)


class Sshd:
    """Starts an sshd for each connection, one after another, as inetd would. Its host key is made
    in the folder, as is `known`, what a client knows of it."""

    def __init__(self, folder, authorized, *settings):
        os.makedirs("/run/sshd", exist_ok=True)
        folder.chmod(0o755)
        if not (folder / "host").exists():
            run("ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / "host")
        self.log = folder / "sshd.log"
        configuration = folder / "sshd_config"
        configuration.write_text("\n".join([
            f"HostKey {folder}/host",
            f"AuthorizedKeysFile {authorized}",
            "StrictModes no",  # the folder is in one that everybody may write to
            "UsePAM no",
            "PasswordAuthentication no",
            "KbdInteractiveAuthentication no",
            "LogLevel VERBOSE", *settings, ""]))
        self._command = [SSHD, "-i", "-f", configuration, "-E", self.log]
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.port = self._listener.getsockname()[1]
        host = (folder / "host.pub").read_text()
        (folder / "known").write_text(f"[127.0.0.1]:{self.port} {host}")
        threading.Thread(target=self._serve, daemon=True).start()

    def _serve(self):
        while True:
            connection, _ = self._listener.accept()
            with connection:
                subprocess.run(self._command, stdin=connection, stdout=connection, check=False)
