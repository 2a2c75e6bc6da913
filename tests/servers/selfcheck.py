"""Check a server started by with-ftpd.sh with Python's ftplib.

usage: with-ftpd.sh <kind> /usr/bin/python3 tests/servers/selfcheck.py [-v]

In passive and in active mode: store, append, retrieve and delete files of
0 B, 1 B and 1 MiB, comparing what lands in $KEL_FTP_ROOT byte for byte.
pyftpdlib-nopasv must refuse PASV with 502. -v prints every reply.
"""
import ftplib
import io
import os
import sys
import time

env = os.environ
root = env["KEL_FTP_ROOT"]
kind = env["KEL_FTP_KIND"]
verbose = "-v" in sys.argv[1:]
replies = []


class FTP(ftplib.FTP):
    def getmultiline(self):
        line = super().getmultiline()
        replies.append(line)
        if verbose:
            print("  <", line.replace("\n", "\n    "), file=sys.stderr)
        return line


def on_disk(name):
    path = os.path.join(root, name)
    if not os.path.exists(path):
        return None
    with open(path, "rb") as f:
        return f.read()


def check(cond, what):
    if not cond:
        sys.exit(f"selfcheck {kind}: FAILED: {what}")


def session(passive):
    t0 = time.monotonic()
    ftp = FTP()
    ftp.connect(env["KEL_FTP_HOST"], int(env["KEL_FTP_PORT"]), timeout=10)
    ftp.login(env["KEL_FTP_USER"], env["KEL_FTP_PASS"])
    login = time.monotonic() - t0
    ftp.set_pasv(passive)
    return ftp, login


def transfers(passive):
    mode = "pasv" if passive else "port"
    ftp, login = session(passive)
    for size in (0, 1, 1 << 20):
        name = f"{mode}-{size}.bin"
        data = os.urandom(size)
        extra = os.urandom(size or 7)
        ftp.storbinary(f"STOR {name}", io.BytesIO(data))
        check(on_disk(name) == data, f"{mode}: STOR {size} B differs on disk")
        ftp.storbinary(f"APPE {name}", io.BytesIO(extra))
        check(on_disk(name) == data + extra, f"{mode}: APPE to {size} B differs on disk")
        got = bytearray()
        ftp.retrbinary(f"RETR {name}", got.extend)
        check(bytes(got) == data + extra, f"{mode}: RETR {size} B differs")
        ftp.delete(name)
        check(on_disk(name) is None, f"{mode}: DELE left {name}")
    ftp.quit()
    return login


def main():
    nopasv = kind == "pyftpdlib-nopasv"
    logins = [transfers(False)]
    if nopasv:
        ftp, login = session(True)
        try:
            ftp.storbinary("STOR refused.bin", io.BytesIO(b"x"))
            check(False, "PASV was not refused")
        except ftplib.error_perm as e:
            check(str(e).startswith("502"), f"PASV refused with {e}")
        check(on_disk("refused.bin") is None, "refused STOR created a file")
        ftp.quit()
    else:
        logins.append(transfers(True))
    ftp, _ = session(True)
    epsv = ftp.sendcmd("EPSV") if not nopasv else "(skipped)"
    ftp.quit()
    multi = sorted({r[:3] for r in replies if "\n" in r})
    seen = {}
    for r in replies:
        seen.setdefault(r[:3], r.splitlines()[0])
    print(f"selfcheck {kind} port {env['KEL_FTP_PORT']}: OK; slowest connect+login {max(logins)*1000:.1f} ms;"
          f" multi-line replies: {multi or 'none'}")
    for code in ("220", "227", "229", "150", "226"):
        if code in seen:
            print(f"  {code}: {seen[code]!r}")
    print(f"  EPSV: {epsv!r}")


main()
