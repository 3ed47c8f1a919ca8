"""ssh that can be cut off in the middle of a frame between two agents, or stall before one.

    cutting_ssh.py FOLDER ARGUMENT...

Runs ssh with FOLDER/ssh_config and the arguments, and passes its input and output on. As soon as
the file FOLDER/cut names a request, half of the next answer to such a request is passed on, the
file is removed and ssh is killed. The file FOLDER/stall, with a number of seconds, holds the next
answer to a transmit back for so long.
"""

import os
import pathlib
import subprocess
import sys
import threading
import time

REQUESTS = {4: "reset", 5: "atr", 6: "transmit"}
ANSWER = 7


def frames(stream):
    """Each frame's bytes, kind and number."""
    while len(length := stream.read(4)) == 4:
        rest = stream.read(int.from_bytes(length, "little"))
        yield length + rest, rest[0], int.from_bytes(rest[1:5], "little")


class Cutter:
    def __init__(self, folder, arguments):
        self._file = folder / "cut"
        self._stall = folder / "stall"
        self._asked = {}  # number: request
        self._ssh = subprocess.Popen(["ssh", "-F", folder / "ssh_config", *arguments],
                                     stdin=subprocess.PIPE, stdout=subprocess.PIPE)

    def pass_requests(self):
        for frame, kind, number in frames(self._ssh.stdout):
            if kind in REQUESTS:
                self._asked[number] = REQUESTS[kind]
            sys.stdout.buffer.write(frame)
            sys.stdout.buffer.flush()

    def pass_answers(self):
        for frame, kind, number in frames(sys.stdin.buffer):
            request = self._asked.pop(number, "") if kind == ANSWER else ""
            cut = self._is_to_be_cut(request)
            if request == "transmit" and self._stall.exists():
                seconds = float(self._stall.read_text())
                self._stall.unlink()
                time.sleep(seconds)
            self._ssh.stdin.write(frame[:len(frame) // 2] if cut else frame)
            self._ssh.stdin.flush()
            if cut:
                self._file.unlink()
                self._ssh.kill()
                return
        self._ssh.stdin.close()

    def _is_to_be_cut(self, request):
        return request and self._file.exists() and self._file.read_text() == request

    def run(self):
        threading.Thread(target=self.pass_answers, daemon=True).start()
        self.pass_requests()
        return self._ssh.wait()


if __name__ == "__main__":
    # At once: a thread still reads.
    os._exit(Cutter(pathlib.Path(sys.argv[1]), sys.argv[2:]).run() & 0xFF)
