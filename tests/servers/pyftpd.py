"""pyftpdlib server for the FTP client tests (started by ftpd.sh).

usage: pyftpd.py <port> <user> <password> <root> <logfile> [--nopasv]

--nopasv answers PASV and EPSV with 502, so clients must fall back to PORT.
"""
import logging
import sys

from pyftpdlib.authorizers import DummyAuthorizer
from pyftpdlib.handlers import FTPHandler
from pyftpdlib.servers import FTPServer


class NoPasvHandler(FTPHandler):
    def ftp_PASV(self, line):
        self.respond("502 Command not implemented.")

    def ftp_EPSV(self, line):
        self.respond("502 Command not implemented.")


def main():
    port, user, password, root, logfile = sys.argv[1:6]
    nopasv = "--nopasv" in sys.argv[6:]
    logging.basicConfig(filename=logfile, level=logging.DEBUG,
                        format="%(asctime)s %(message)s")
    auth = DummyAuthorizer()
    auth.add_user(user, password, root, perm="elradfmwMT")
    handler = NoPasvHandler if nopasv else FTPHandler
    handler.authorizer = auth
    handler.banner = "kel test pyftpdlib ready."
    handler.auth_failed_timeout = 0  # default: 3 s before each 530
    server = FTPServer(("127.0.0.1", int(port)), handler)
    server.serve_forever()


if __name__ == "__main__":
    main()
