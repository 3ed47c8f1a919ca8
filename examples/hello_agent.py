#!/usr/bin/python3
"""An agent on one page: its card answers every command with "hello" and 90 00. For Linux.
A card that may take its time needs a little more, which agent.py has."""

import contextlib
import os
import socket
import struct
import time

ATR = bytes.fromhex("3B 85 80 01 68 65 6C 6C 6F 66")  # T=0, T=1, "hello"
PIPE = (os.environ.get("ZELTA_PIPE_ROOT", "/run/zelta/pipe")
        + "/ProtectedPrefix/LocalService/zelta_smartcard_")


def number(pipe):
    return struct.unpack("<I", pipe.recv(4, socket.MSG_WAITALL))[0]


while True:  # there is no driver yet, or it has gone
    time.sleep(0.1)
    with (contextlib.suppress(OSError, struct.error),
          socket.socket(socket.AF_UNIX) as commands, socket.socket(socket.AF_UNIX) as events):
        commands.connect(PIPE + "command0")
        events.connect(PIPE + "event0")
        while True:
            code, answer = number(commands), ATR
            if code == 2:
                apdu = commands.recv(number(commands), socket.MSG_WAITALL)
                answer = b"hello" + bytes.fromhex("90 00")
            if code != 3:  # which only says that the card is ready
                commands.sendall(struct.pack("<I", len(answer)) + answer)
