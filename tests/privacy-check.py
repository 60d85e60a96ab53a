#!/usr/bin/env python3
"""Reads an strace log (strace -f -y) and fails when the traced programs opened a socket other
than a local one, or made, opened for writing, renamed or linked anything outside the allowed
folders. Usage: privacy-check.py TRACE ALLOWED_FOLDER..."""
import os
import re
import sys

trace, allowed = sys.argv[1], [os.path.realpath(a) for a in sys.argv[2:]]
# Devices every program writes to; nothing is stored there.
devices = ("/dev/null", "/dev/tty", "/dev/pts/")

WRITE_FLAGS = re.compile(r"O_WRONLY|O_RDWR|O_CREAT|O_TMPFILE|O_TRUNC")
STRING = r'"((?:[^"\\]|\\.)*)"'
DIRFD = r"(AT_FDCWD|\d+<([^>]*)>)"


def joined(dirfd_path, name):
    if name.startswith("/") or not dirfd_path:
        return name
    return os.path.join(dirfd_path, name)


def inside(path):
    path = os.path.normpath(path)
    if path.startswith(devices):
        return True
    # The folder may not exist any more (a private folder removed at the end): compare its parent.
    real = os.path.join(os.path.realpath(os.path.dirname(path)), os.path.basename(path))
    return any(real == a or real.startswith(a + "/") for a in allowed)


problems = []
cwd = os.getcwd()
with open(trace, errors="replace") as log:
    for line in log:
        failed = re.search(r"\) += -1 ", line)
        socket = re.search(r"socket\((AF_\w+)", line)
        if socket and socket.group(1) != "AF_UNIX" and not failed:
            problems.append("a network socket: " + line.strip())
            continue
        if re.search(r"sa_family=AF_INET6?\b", line):
            problems.append("a network address: " + line.strip())
            continue
        if failed:
            continue
        paths = []
        m = re.search(r"\bopenat\(" + DIRFD + r", " + STRING + r", ([A-Z_|]+)", line)
        if m and WRITE_FLAGS.search(m.group(4)):
            paths.append(joined(m.group(2) or cwd, m.group(3)))
        m = re.search(r"\bopen\(" + STRING + r", ([A-Z_|]+)", line)
        if m and WRITE_FLAGS.search(m.group(2)):
            paths.append(joined(cwd, m.group(1)))
        m = re.search(r"\b(creat|mkdir)\(" + STRING, line)
        if m:
            paths.append(joined(cwd, m.group(2)))
        m = re.search(r"\bmkdirat\(" + DIRFD + r", " + STRING, line)
        if m:
            paths.append(joined(m.group(2) or cwd, m.group(3)))
        m = re.search(r"\b(rename|link|symlink)\(" + STRING + r", " + STRING, line)
        if m:
            paths += [joined(cwd, m.group(3))] + ([joined(cwd, m.group(2))] if m.group(1) == "rename" else [])
        m = re.search(r"\b(renameat2?|linkat)\(" + DIRFD + r", " + STRING + r", " + DIRFD + r", " + STRING, line)
        if m:
            paths.append(joined(m.group(6) or cwd, m.group(7)))
            if m.group(1) != "linkat":
                paths.append(joined(m.group(3) or cwd, m.group(4)))
        for p in paths:
            if not inside(p):
                problems.append("wrote outside the allowed folders: " + line.strip())

for p in problems[:20]:
    print(p, file=sys.stderr)
sys.exit(1 if problems else 0)
