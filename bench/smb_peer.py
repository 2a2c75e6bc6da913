#!/usr/bin/env python3
"""A small file-serving peer of the SMB core dialect for the benchmarks:
    smb_peer.py ADDRESS
answers node status queries on UDP port 137 and serves one share from
memory on TCP port 139 of ADDRESS (meant for a private network namespace,
see bench/run): session request, negotiate, tree connect, check directory,
create, open, write, read, close, delete, tree disconnect, logoff. Every
other request gets an error reply. Prints "ready" when both ports listen.
Files live in memory; a written file can be read back in the same run.
"""
import socket
import struct
import sys
import threading

NAME = b"KELPEER"
TID = 7


def status_reply(query):
    # Transaction id from the query; one name of type 0x20, then a MAC.
    names = (NAME.ljust(15) + b"\x20" + struct.pack(">H", 0x0400))
    body = struct.pack(">H", len(names) + 7) + b"\x01" + names + b"\x02\x00\x00\x00\x00\x01"
    return (query[:2] + bytes.fromhex("8400 0000 0001 0000 0000") + b"\x20" + b"CK" + b"A" * 30 + b"\x00"
            + bytes.fromhex("0021 0001 00000000") + body)


def name_service(addr):
    s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    s.bind((addr, 137))
    while True:
        query, peer = s.recvfrom(2048)
        s.sendto(status_reply(query), peer)


def reply(cmd, words=(), data=b"", error_class=0, error_code=0):
    m = (b"\xffSMB" + bytes([cmd, error_class, 0]) + struct.pack("<H", error_code) + bytes(15)
         + struct.pack("<HHHH", TID, 0, 0, 0) + bytes([len(words)])
         + b"".join(struct.pack("<H", w) for w in words) + struct.pack("<H", len(data)) + data)
    return struct.pack(">BBH", 0, len(m) >> 16, len(m) & 0xFFFF) + m


def read_exact(conn, n):
    out = bytearray()
    while len(out) < n:
        chunk = conn.recv(n - len(out))
        if not chunk:
            return None
        out += chunk
    return bytes(out)


def path_of(data):
    # A data block of format 4: the path, NUL-terminated.
    return data[1:data.index(b"\x00", 1)] if data[:1] == b"\x04" else data


def serve(conn, files):
    fids, next_fid = {}, 0x2A
    while True:
        head = read_exact(conn, 4)
        if head is None:
            return
        length = (head[1] & 1) << 16 | head[2] << 8 | head[3]
        body = read_exact(conn, length) if length else b""
        if body is None:
            return
        if head[0] == 0x81:  # session request
            conn.sendall(b"\x82\x00\x00\x00")
            continue
        cmd, count = body[4], body[32]
        words = struct.unpack("<%dH" % count, body[33:33 + 2 * count])
        nbytes = struct.unpack("<H", body[33 + 2 * count:35 + 2 * count])[0]
        data = body[35 + 2 * count:35 + 2 * count + nbytes]
        if cmd == 0x72:  # negotiate: the first dialect
            out = reply(cmd, (0,))
        elif cmd == 0x70:  # tree connect: buffer size, tid
            out = reply(cmd, (4096, TID))
        elif cmd in (0x10, 0x71, 0x74):  # check directory, tree disconnect, logoff
            out = reply(cmd, (0xFF, 0) if cmd == 0x74 else ())
        elif cmd == 0x03:  # create
            name = path_of(data)
            files[name] = bytearray()
            fids[next_fid] = name
            out, next_fid = reply(cmd, (next_fid,)), next_fid + 1
        elif cmd == 0x02:  # open
            name = path_of(data)
            if name not in files:
                out = reply(cmd, (), b"", 1, 2)
            else:
                fids[next_fid] = name
                size = len(files[name])
                out = reply(cmd, (next_fid, 0, 0, 0, size & 0xFFFF, size >> 16, 0))
                next_fid += 1
        elif cmd == 0x0B:  # write: fid, count, offset
            f = files[fids[words[0]]]
            n, at = words[1], words[2] | words[3] << 16
            chunk = data[3:3 + n]
            if len(f) < at:
                f.extend(bytes(at - len(f)))
            f[at:at + n] = chunk
            out = reply(cmd, (n,))
        elif cmd == 0x0A:  # read: fid, count, offset
            f = files[fids[words[0]]]
            at = words[2] | words[3] << 16
            chunk = bytes(f[at:at + min(words[1], 4096)])
            out = reply(cmd, (len(chunk), 0, 0, 0, 0), b"\x01" + struct.pack("<H", len(chunk)) + chunk)
        elif cmd == 0x04:  # close
            fids.pop(words[0], None)
            out = reply(cmd)
        elif cmd == 0x06:  # delete
            files.pop(path_of(data), None)
            out = reply(cmd)
        else:
            out = reply(cmd, (), b"", 2, 1)
        conn.sendall(out)


def main():
    addr = sys.argv[1]
    threading.Thread(target=name_service, args=(addr,), daemon=True).start()
    server = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
    server.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    server.bind((addr, 139))
    server.listen(4)
    print("ready", flush=True)
    files = {}
    while True:
        conn, _ = server.accept()
        conn.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        try:
            serve(conn, files)
        finally:
            conn.close()


if __name__ == "__main__":
    main()
