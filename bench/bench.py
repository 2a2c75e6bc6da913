#!/usr/bin/env python3
"""The benchmark driver, run by bench/run inside a private network namespace
with the servers up (see bench/run). Each case runs the library's side
(kelbench) and its reference (curl, or curl's library) in turn, RUNS times
each, the order flipped every round, and prints the medians and their ratio.

    bench.py ftp   BUILD RUNS    with-ftpd.sh's KEL_FTP_* in the environment
    bench.py mail  BUILD RUNS    dovecot.sh's and exim.sh's KEL_* likewise
    bench.py smb   BUILD RUNS    the scripted peer bench/smb_peer.py on ports 137
                                 and 139 (in a namespace), or with-smb.sh's
                                 KEL_SMB_* server; the reference is the
                                 stop-and-wait limit that kelbench measures on
                                 the same peer

Times are what each side measures around its own operation (kelbench's
clock; curl's %{time_total}; kelbench_curl's clock), so process start is
outside both. Results go to stdout as table rows and to RESULTS (a file
named by the environment variable KEL_BENCH_RESULTS) as JSON lines.
"""
import json
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

MiB = 1 << 20


def run(cmd):
    out = subprocess.run(cmd, check=True, capture_output=True, text=True).stdout
    return out


def kel(build, *args):
    # Only name=value words: the SMB name service prints a "MAC: ..." line.
    fields = dict(f.split("=", 1) for f in run([f"{build}/bench/kelbench", *args]).split() if "=" in f)
    return fields


def curl(*args):
    return float(run(["curl", "-sS", "-w", "%{time_total}", *args]))


def record(case, lib_times, ref_times, size, extra):
    lib, ref = statistics.median(lib_times), statistics.median(ref_times)
    row = {"case": case, "runs": len(lib_times), "lib_s": lib, "ref_s": ref,
           "time_ratio": lib / ref}
    if size:
        row["lib_MBps"] = size / lib / 1e6
        row["ref_MBps"] = size / ref / 1e6
        row["throughput_ratio"] = ref / lib
    row.update(extra)
    print(json.dumps(row), flush=True)
    path = os.environ.get("KEL_BENCH_RESULTS")
    if path:
        with open(path, "a") as f:
            f.write(json.dumps(row) + "\n")


def alternate(runs, lib_once, ref_once):
    """lib_once() -> (seconds, fields); ref_once() -> seconds."""
    lib, ref, fields = [], [], {}
    for i in range(runs):
        order = [0, 1] if i % 2 == 0 else [1, 0]
        for which in order:
            if which == 0:
                s, fields = lib_once()
                lib.append(s)
            else:
                ref.append(ref_once())
    return lib, ref, fields


def same_file(a, b):
    if os.path.getsize(a) != os.path.getsize(b):
        sys.exit(f"bench: {a} and {b} differ in size")
    if subprocess.run(["cmp", "-s", a, b]).returncode != 0:
        sys.exit(f"bench: {a} and {b} differ")


def memory(fields):
    return {"pool_peak": int(fields["pool_peak"]), "lib_heap": int(fields["lib_heap"]),
            "libc_heap": int(fields["libc_heap"])}


def ftp(build, runs):
    host, port = os.environ["KEL_FTP_HOST"], os.environ["KEL_FTP_PORT"]
    user, pw, root = os.environ["KEL_FTP_USER"], os.environ["KEL_FTP_PASS"], os.environ["KEL_FTP_ROOT"]
    work = os.path.dirname(root)
    src, out_lib, out_ref = f"{work}/src.bin", f"{work}/out-lib.bin", f"{work}/out-ref.bin"
    size = 256 * MiB
    with open(src, "wb") as f:
        for _ in range(size // MiB):
            f.write(os.urandom(MiB))
    url = f"ftp://{user}:{pw}@{host}:{port}/"
    login = [host, port, user, pw]

    def store_lib():
        fields = kel(build, "ftp-store", *login, src, "lib.bin")
        return float(fields["seconds"]), fields

    def store_ref():
        return curl("-T", src, url + "ref.bin")

    lib, ref, fields = alternate(runs, store_lib, store_ref)
    same_file(src, f"{root}/lib.bin")
    same_file(src, f"{root}/ref.bin")
    record("FTP store 256 MiB", lib, ref, size, memory(fields))

    def get_lib():
        fields = kel(build, "ftp-retrieve", *login, "lib.bin", out_lib)
        return float(fields["seconds"]), fields

    def get_ref():
        return curl("-o", out_ref, url + "ref.bin")

    lib, ref, fields = alternate(runs, get_lib, get_ref)
    same_file(src, out_lib)
    same_file(src, out_ref)
    record("FTP retrieve 256 MiB", lib, ref, size, memory(fields))
    for p in (src, out_lib, out_ref, f"{root}/lib.bin", f"{root}/ref.bin"):
        os.remove(p)

    def small_lib():
        fields = kel(build, "ftp-small", *login, "small-lib.txt")
        return float(fields["seconds"]), fields

    def small_ref():
        fields = dict(f.split("=", 1) for f in run([f"{build}/bench/kelbench_curl", url + "small-ref.txt"]).split())
        return float(fields["seconds"])

    lib, ref, fields = alternate(runs * 4, small_lib, small_ref)
    same_file(f"{root}/small-lib.txt", f"{root}/small-ref.txt")
    record("FTP small-file transaction (1 KiB)", lib, ref, 0, memory(fields))


def mail(build, runs):
    host = os.environ["KEL_POP3_HOST"]
    pop3_port, smtp_port = os.environ["KEL_POP3_PORT"], int(os.environ["KEL_SMTP_PORT"]) + 5
    user, pw, maildir = os.environ["KEL_POP3_USER"], os.environ["KEL_POP3_PASS"], os.environ["KEL_POP3_MAILDIR"]
    work = tempfile.mkdtemp(prefix="kelbench.", dir=os.environ.get("TMPDIR", "/dev/shm"))
    try:
        mail_in(build, runs, work, host, pop3_port, smtp_port, user, pw, maildir)
    finally:
        shutil.rmtree(work)


def mail_in(build, runs, work, host, pop3_port, smtp_port, user, pw, maildir):
    # POP3: one message of 10 MiB in lines of 76 characters, some of which
    # begin with a dot, in the mailbox of kel.
    line = b"x" * 75 + b"\n"
    body = bytearray(b"From: a@kel.test\nTo: kel@kel.test\nSubject: big\n\n")
    i = 0
    while len(body) < 10 * MiB:
        body += (b"." + line[1:]) if i % 50 == 0 else line
        i += 1
    with open(f"{maildir}/new/1000000000.M1P1.kel", "wb") as f:
        f.write(body)
    shutil.chown(f"{maildir}/new/1000000000.M1P1.kel", "daemon", "daemon")
    out_lib, out_ref = f"{work}/pop3-lib.eml", f"{work}/pop3-ref.eml"

    def pop3_lib():
        fields = kel(build, "pop3", host, pop3_port, user, pw, "1", out_lib)
        return float(fields["seconds"]), fields

    def pop3_ref():
        return curl("-o", out_ref, f"pop3://{user}:{pw}@{host}:{pop3_port}/1")

    lib, ref, fields = alternate(runs, pop3_lib, pop3_ref)
    same_file(out_lib, out_ref)
    record("POP3 retrieve 10 MiB", lib, ref, os.path.getsize(out_lib), memory(fields))

    # SMTP: a message with a 10 MiB attachment; curl sends the message that
    # the library's first run delivered, byte for byte.
    attachment = f"{work}/attachment.bin"
    with open(attachment, "wb") as f:
        f.write(os.urandom(10 * MiB))
    inbox = os.path.join(os.path.dirname(maildir), "to")

    def delivered():
        for _ in range(200):
            for sub in ("new", "cur"):
                d = os.path.join(inbox, sub)
                names = os.listdir(d) if os.path.isdir(d) else []
                if names:
                    return os.path.join(d, names[0])
            time.sleep(0.05)
        sys.exit("bench: no message arrived")

    fields = kel(build, "smtp", host, str(smtp_port), "device@kel.test", "to@kel.test", attachment)
    first = delivered()
    message = f"{work}/message.eml"
    with open(first, "rb") as f, open(message, "wb") as g:
        data = f.read()
        # Exim's own trace headers go; the rest is the library's message.
        lines = data.split(b"\n")
        while lines and (lines[0][:1] in (b" ", b"\t") or
                         lines[0].split(b":")[0].lower() in (b"return-path", b"envelope-to", b"delivery-date", b"received")):
            lines.pop(0)
        g.write(b"\r\n".join(lines))
    os.remove(first)

    def clear():
        delivered_path = delivered()
        os.remove(delivered_path)

    def smtp_lib():
        fields = kel(build, "smtp", host, str(smtp_port), "device@kel.test", "to@kel.test", attachment)
        clear()
        return float(fields["seconds"]), fields

    def smtp_ref():
        s = curl("--mail-from", "device@kel.test", "--mail-rcpt", "to@kel.test", "-T", message,
                 f"smtp://{host}:{smtp_port}")
        clear()
        return s

    lib, ref, fields = alternate(runs, smtp_lib, smtp_ref)
    record("SMTP 10 MiB attachment", lib, ref, os.path.getsize(message), memory(fields))


def smb(build, runs):
    """Against the scripted peer (bench/smb_peer.py, started here on
    127.0.0.1), or against the server that with-smb.sh names in KEL_SMB_*."""
    server = os.environ.get("KEL_SMB_ADDR")
    peer = None
    if server:
        share = os.environ["KEL_SMB_SHARE"]
        os.makedirs(f"{share}/bench", exist_ok=True)
        os.chmod(f"{share}/bench", 0o777)  # the server works as an account of its own
        password, where = os.environ["KEL_SMB_PASS"], "core-dialect server"
    else:
        server, password, where = "127.0.0.1", "pw", "scripted peer"
        peer = subprocess.Popen([sys.executable, os.path.join(os.path.dirname(__file__), "smb_peer.py"), server],
                                stdout=subprocess.PIPE, text=True)
        if peer.stdout.readline().strip() != "ready":
            sys.exit("bench: the scripted SMB peer did not start")
    local = os.path.join(os.environ.get("TMPDIR", "/dev/shm"), f"kelbench-smb-{os.getpid()}.bin")
    results = []
    try:
        for _ in range(runs):
            results.append(kel(build, "smb", server, password, "64", local))
            os.remove(local)
            if peer is None:
                os.remove(f"{share}/bench/big.bin")
    finally:
        if peer is not None:
            peer.terminate()
            peer.wait()
    for way, name in (("up", "SMB upload 64 MiB"), ("down", "SMB download 64 MiB")):
        row = {"case": f"{name}, {where}", "runs": runs,
               "lib_MBps": statistics.median(float(r[f"smb_{way}_MBps"]) for r in results),
               "share_of_limit": statistics.median(float(r[f"smb_{way}_share"]) for r in results)}
        row.update(memory(results[-1]))
        print(json.dumps(row), flush=True)
        path = os.environ.get("KEL_BENCH_RESULTS")
        if path:
            with open(path, "a") as f:
                f.write(json.dumps(row) + "\n")


def main():
    what, build, runs = sys.argv[1], sys.argv[2], int(sys.argv[3])
    {"ftp": ftp, "mail": mail, "smb": smb}[what](build, runs)


if __name__ == "__main__":
    main()
