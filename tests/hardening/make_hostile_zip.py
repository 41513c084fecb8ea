#!/usr/bin/env python3
"""Writes a zip archive whose entries try to land outside the folder it is
extracted into.

    make_hostile_zip.py KIND ZIP OUTSIDE

KIND names the trick, ZIP is the archive to write, OUTSIDE an existing
folder (holding victim.txt) that the entries aim at. Every archive also
holds the harmless entry Velmora/readme.txt, so a test can see that the
extraction ran at all.
"""
import os
import stat
import sys
import zipfile


def regular(archive, name, data=b"written by the archive\n"):
    info = zipfile.ZipInfo(name)
    info.create_system = 3  # Unix, so the mode bits below are honoured
    info.external_attr = (stat.S_IFREG | 0o644) << 16
    archive.writestr(info, data)


def symlink(archive, name, target):
    info = zipfile.ZipInfo(name)
    info.create_system = 3
    info.external_attr = (stat.S_IFLNK | 0o777) << 16
    archive.writestr(info, target)


def main():
    kind, path, outside = sys.argv[1], sys.argv[2], os.path.abspath(sys.argv[3])
    # From VelmoraExtract, ".." is the temporary folder that also holds OUTSIDE.
    relative_outside = os.path.join("..", os.path.basename(outside))
    with zipfile.ZipFile(path, "w") as archive:
        regular(archive, "Velmora/readme.txt")
        if kind == "parent":
            regular(archive, "../escaped-parent.txt")
            regular(archive, relative_outside + "/escaped-parent.txt")
        elif kind == "nested-parent":
            regular(archive, "Velmora/../../escaped-nested.txt")
            regular(archive, "Velmora/../" + relative_outside + "/victim.txt", b"overwritten\n")
        elif kind == "absolute":
            regular(archive, outside + "/escaped-absolute.txt")
            regular(archive, outside + "/victim.txt", b"overwritten\n")
        elif kind == "backslash":
            regular(archive, "..\\escaped-backslash.txt")
            regular(archive, "..\\" + os.path.basename(outside) + "\\victim.txt", b"overwritten\n")
        elif kind == "symlink-folder":
            symlink(archive, "Velmora/link", outside)
            regular(archive, "Velmora/link/escaped-through-link.txt")
            regular(archive, "Velmora/link/victim.txt", b"overwritten\n")
        elif kind == "symlink-file":
            symlink(archive, "Velmora/evil", outside + "/victim.txt")
            regular(archive, "Velmora/evil", b"overwritten\n")
        elif kind == "relative-symlink-folder":
            symlink(archive, "up", "../" + os.path.basename(outside))
            regular(archive, "up/escaped-relative-link.txt")
        else:
            sys.exit("unknown kind " + kind)


if __name__ == "__main__":
    main()
