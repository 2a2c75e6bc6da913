"""pyftpdlib server for the FTP client tests (started by ftpd.sh).

usage: pyftpd.py <port> <user> <password> <root> [-nopasv]

-nopasv answers PASV and EPSV with 502, so clients must fall back to PORT.
"""
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer


class NoPasvHandler(FTPHandler):
    def ftp_PASV(self, line):
        self.respond("502 Command not implemented.")

    ftp_EPSV = ftp_PASV


port, user, password, root = sys.argv[1:5]
handler = NoPasvHandler if sys.argv[5:] == ["-nopasv"] else FTPHandler
handler.authorizer = DummyAuthorizer()
handler.authorizer.add_user(user, password, root, perm="elradfmwMT")
handler.auth_failed_timeout = 0  # default: 3 s before each 530
FTPServer(("127.0.0.1", int(port)), handler).serve_forever()
