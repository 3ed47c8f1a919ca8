#!/usr/bin/python3
"""An agent on one page: its card answers every command with "hello" and 90 00. For Linux."""

import fcntl
import os
import socket
import struct
import termios
import time

ATR = bytes.fromhex("3B 85 80 01 68 65 6C 6C 6F 66")  # T=0, T=1, "hello"
PIPE = (os.environ.get("ZELTA_PIPE_ROOT", "/run/zelta/pipe")
        + "/ProtectedPrefix/LocalService/zelta_smartcard_")


def respond(apdu):
    return b"hello" + bytes.fromhex("90 00")


def count(pipe, what):  # unread bytes: TIOCOUTQ those that were sent, FIONREAD those that came
    return struct.unpack("i", fcntl.ioctl(pipe, what, bytes(4)))[0]


def number(pipe):
    return struct.unpack("<I", pipe.recv(4, socket.MSG_WAITALL))[0]


def serve(pipe):
    # As long as commands come, and none before the answer to the last one has been read.
    while pipe.recv(1, socket.MSG_PEEK) and count(pipe, termios.TIOCOUTQ) <= 1:
        code = number(pipe)
        apdu = pipe.recv(number(pipe), socket.MSG_WAITALL) if code == 2 else b""
        if code != 3:  # the others want an answer
            answer = respond(apdu) if code == 2 else ATR
            answer = struct.pack("<I", len(answer)) + answer
            if count(pipe, termios.FIONREAD) or pipe.send(answer) < len(answer):
                return


while True:
    try:
        with socket.socket(socket.AF_UNIX) as commands, socket.socket(socket.AF_UNIX) as events:
            for pipe, name in (commands, "command0"), (events, "event0"):
                pipe.settimeout(0)  # one that is busy is tried again
                pipe.connect(PIPE + name)
                pipe.settimeout(None)
            serve(commands)
    except (OSError, struct.error):
        pass  # there is no driver, or it has gone
    time.sleep(0.1)
