// The FTP client's reads of what a server sends. The input is the server's
// whole side of a conversation: the greeting, the replies of the login with
// the 257 path and its separator, a command's reply table, CWD that falls
// back to XCWD, PASV with the 227 parser, and the QUIT of the close.
#include "feed.h"
#include "ftp/ftp_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  kf::Feed feed(data, size);
  auto defined = [](kelResult r) { return kf::defined(r, 0x58A0); };
  kelFTPCSession *s = kelFTPCProtoOpen(0, 20);
  if (s == nullptr) abort();
  s->controlSocket = feed.client;
  kelFTPCSetState(s, KEL_FTPC_CONNECTED | KEL_FTPC_LOGGED_IN);
  uint16_t code = 0, port = 0;
  uint32_t address = 0;
  char directory[KEL_FTPC_WORKDIR_SIZE + 1] = {};
  defined(kelFTPCReceiveResponse(s, &code));
  defined(kelFTPCCommandReplyUSER(s, "u"));
  defined(kelFTPCCommandReplyPASS(s, "p"));
  if (defined(kelFTPCCommandReplyPWD(s, directory, KEL_FTPC_WORKDIR_SIZE)) == KEL_OK)
    defined(kelFTPCDerivePathSeparator(directory, &s->pathSeparator));
  defined(kelFTPCCommandReplyTYPE(s, 3));
  defined(kelFTPCCommandReplyCWD(s, "d"));
  defined(kelFTPCCommandReplyPASV(s, &address, &port));
  defined(kelFTPCProtoClose(s));
  return 0;
}
