#include "ftp_test.h"

#include <arpa/inet.h>
#include <string.h>

#include <map>

namespace ftpt {

namespace {

const std::map<std::string, kelResult> kResults = {
    {"ok", KEL_OK}, {"closing", KEL_FTPC_SERVICE_CLOSING}, {"syntax", KEL_FTPC_BAD_COMMAND},
    {"ready", KEL_FTPC_NOT_READY}, {"notimpl", KEL_FTPC_NOT_IMPLEMENTED}, {"busy", KEL_FTPC_FILE_BUSY},
    {"name", KEL_FTPC_BAD_FILE_NAME}, {"account", KEL_FTPC_NEED_ACCOUNT}, {"store", KEL_FTPC_STORE_FAILED},
    {"retr", KEL_FTPC_RETRIEVE_FAILED}, {"gone", KEL_FTPC_UNAVAILABLE}, {"nodata", KEL_FTPC_NO_DATA_CONNECTION},
    {"full", KEL_FTPC_NO_STORAGE}, {"login", KEL_FTPC_BAD_LOGIN}, {"pass", KEL_FTPC_NEED_PASSWORD},
    {"dele", KEL_FTPC_DELETE_FAILED}, {"odd", KEL_FTPC_BAD_REPLY}, {"active", KEL_FTPC_ALREADY_ACTIVE},
    {"notclosed", KEL_FTPC_NOT_CLOSED}, {"wrong", KEL_FTPC_WRONG_TRANSFER}, {"iofail", KEL_FTPC_IO_FAILED},
    {"timeout", KEL_FTPC_IO_TIMEOUT}, {"connfail", KEL_FTPC_CONNECT_FAILED}, {"session", KEL_FTPC_BAD_SESSION}};

// The final reply of a retrieve: its data connection ends at once.
kelResult finalGet(kelFTPCSession *s) {
  int pair[2];
  char b[4];
  uint32_t n = 9;
  socketpair(AF_UNIX, SOCK_STREAM, 0, pair);
  close(pair[1]);
  s->dataSocket = pair[0];
  kelFTPCSetState(s, kReady | KEL_FTPC_TRANSFER | KEL_FTPC_GET);
  kelResult r = kelFTPCProtoGetData(s, b, sizeof b, &n);
  s->flags = 0;
  return n == 0 ? r : KEL_FTPC_BAD_COMMAND;
}

std::string readToEnd(kelFTPCSession *s, kelResult *r) {
  std::string got;
  char buffer[7];
  uint32_t count = 1;
  while ((*r = kelFTPCRead(s, buffer, sizeof buffer, &count)) == KEL_OK && count != 0) got.append(buffer, count);
  return got;
}

}  // namespace

std::vector<std::string> split(const std::string &text, char by) {
  std::vector<std::string> parts(1);
  for (char c : text) c == by ? parts.push_back("") : parts.back().push_back(c);
  return parts;
}

void script(kt::TcpPeer &p, const std::string &text) {
  p.stepTimeoutMs = 3000;
  // Server lines in a row go out in one send, so that what the client finds
  // at its next wait doesn't hang on how fast the peer's thread runs.
  std::string replies;
  for (std::string line : split(text, '|')) {
    std::string word, conn;
    std::istringstream(line) >> word >> conn;
    if (word[0] != '<' && !replies.empty()) kt::play(p, "S- " + replies), replies.clear();
    if (word[0] == '<') {
      replies += line.substr(line.find('<') + 1) + "\\r\\n";
    } else if (word[0] == '>') {
      kt::play(p, "C: " + line.substr(line.find('>') + 1));
    } else if (word == "login") {
      kt::play(p, "S: 220 ready\nC: USER u\nS: 230 in\nC: PWD\nS: 257 \"/home\" is current");
    } else if (word == "pasv") {
      kt::play(p, "C: PASV\nlisten " + conn + "L\nS: 227 Entering Passive Mode (127,0,0,1,${" + conn +
                      "L.p1},${" + conn + "L.p2}).\naccept " + conn + "L " + conn);
    } else if (word == "port") {
      kt::play(p, "C: PASV\nS: 502 not here");
      p.expectLine("PORT 127,0,0,1,(\\d+),(\\d+)\r\n", {"hi", "lo"});
      p.step([conn](kt::TcpPeer &q) {
        q.setVar(conn + ".port", std::to_string(stoi(q.var("hi")) * 256 + stoi(q.var("lo"))));
        return true;
      });
    } else {
      kt::play(p, line);
    }
  }
  if (!replies.empty()) kt::play(p, "S- " + replies);
}

bool call(kelFTPCSession *&s, const std::string &item, uint16_t port) {
  size_t eq = item.rfind('=');
  std::vector<std::string> w = split(item.substr(0, eq == std::string::npos ? item.size() : eq), ' ');
  while (w.size() > 1 && w.back().empty()) w.pop_back();
  std::string want = eq == std::string::npos ? "ok" : item.substr(item.find_first_not_of(' ', eq + 1));
  for (std::string &a : w) a = a == "-" ? "" : kt::unescape(a);
  w.resize(4);
  const std::string &op = w[0];
  const char *a = w[1].c_str(), *b = w[2].c_str();
  if (op == "flags" || op == "sep" || op == "sockets" || op == "names") {
    std::string open = {"01"[s->controlSocket != -1], "01"[s->dataSocket != -1], "01"[s->listenSocket != -1]};
    std::string names = std::string(s->transferDirectory, strnlen(s->transferDirectory, 128)) + "," +
                        std::string(s->transferFile, strnlen(s->transferFile, 128));
    EXPECT_EQ(op == "flags" ? std::to_string(s->flags) : op == "sep" ? std::string(1, s->pathSeparator)
              : op == "names" ? names : open, want) << item;
    return false;
  }
  using Named = kelResult (*)(kelFTPCSession *, const char *);
  using Numbered = kelResult (*)(kelFTPCSession *, int);
  using Opening = kelResult (*)(kelFTPCSession *, const char *, const char *, int, int, int);
  static const std::map<std::string, Named> named = {
      {"CWD", kelFTPCCommandReplyCWD}, {"XCWD", kelFTPCCommandReplyXCWD}, {"DELE", kelFTPCCommandReplyDELE},
      {"STOR", kelFTPCCommandReplySTOR}, {"APPE", kelFTPCCommandReplyAPPE}, {"RETR", kelFTPCCommandReplyRETR},
      {"USER", kelFTPCCommandReplyUSER}, {"PASS", kelFTPCCommandReplyPASS}};
  static const std::map<std::string, Numbered> numbered = {
      {"TYPE", kelFTPCCommandReplyTYPE}, {"STRU", kelFTPCCommandReplySTRU}, {"MODE", kelFTPCCommandReplyMODE}};
  static const std::map<std::string, Opening> opening = {
      {"put", kelFTPCProtoPutOpen}, {"append", kelFTPCProtoAppendOpen}, {"get", kelFTPCProtoGetOpen}};
  kelResult r = KEL_FTPC_BAD_COMMAND;
  kelFTPCFileRecord file = {a, b};
  uint32_t address;
  uint16_t dataPort;
  char dir[64];
  std::string got;
  if (named.count(op)) r = named.at(op)(s, a);
  else if (numbered.count(op)) r = numbered.at(op)(s, atoi(a));
  else if (opening.count(op)) r = opening.at(op)(s, a, b, 1, 1, 3);
  else if (op == "attach") {
    kelFTPCOpenSocket(&s->controlSocket);
    r = kelFTPCConnectSocket(&s->controlSocket, kt::loopback(), port, s->timeoutMs);
  }
  else if (op == "connect") r = kelFTPCProtoConnect(s, w[1].empty() ? "127.0.0.1" : a, "u", "p");
  else if (op == "wopen") r = kelFTPCWriteOpen(s, w[2].empty() ? nullptr : &file);
  else if (op == "ropen") r = kelFTPCReadOpen(s, w[2].empty() ? nullptr : &file);
  else if (op == "write") r = kelFTPCWrite(s, w[1].data(), static_cast<uint32_t>(w[1].size()));
  else if (op == "read") got = readToEnd(s, &r);
  else if (op == "wclose") r = kelFTPCWriteClose(s);
  else if (op == "rclose") r = kelFTPCReadClose(s);
  else if (op == "putclose") r = kelFTPCProtoPutClose(s);
  else if (op == "delete") r = kelFTPCProtoDelete(s, a, b);
  else if (op == "abort") r = kelFTPCAbortEnd(s);
  else if (op == "end") r = kelFTPCEnd(s);
  else if (op == "PORT") r = kelFTPCCommandReplyPORT(s, inet_addr("10.1.2.3"), 1234);
  else if (op == "PASV") r = kelFTPCCommandReplyPASV(s, &address, &dataPort);
  else if (op == "QUIT") r = kelFTPCCommandReplyQUIT(s);
  else if (op == "PWD") r = kelFTPCCommandReplyPWD(s, dir, sizeof dir);
  else if (op == "XPWD") r = kelFTPCCommandReplyXPWD(s, dir, sizeof dir);
  else if (op == "final-put") r = (s->dataSocket = socket(AF_INET, SOCK_STREAM, 0), kelFTPCProtoPutClose(s));
  else if (op == "final-get") r = finalGet(s);
  else ADD_FAILURE() << "unknown call " << item;
  EXPECT_EQ(r, kResults.at(want)) << item;
  if (op == "read") {
    EXPECT_EQ(kt::printable(got), kt::printable(w[1])) << item;
  }
  return op == "abort" || op == "end";
}

}  // namespace ftpt
