#include "transcript.h"

#include <stdlib.h>

namespace kt {

std::string unescape(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    if (text[i] != '\\' || i + 1 == text.size()) {
      out += text[i];
      continue;
    }
    char c = text[++i];
    switch (c) {
      case 'r': out += '\r'; break;
      case 'n': out += '\n'; break;
      case 't': out += '\t'; break;
      case '0': out += '\0'; break;
      case 'x':
        out += static_cast<char>(strtol(text.substr(i + 1, 2).c_str(), nullptr, 16));
        i += 2;
        break;
      default: out += c;
    }
  }
  return out;
}

std::string unhex(const std::string &hex) {
  std::string out, pair;
  for (char c : hex) {
    if (c == ' ' || c == '\n' || c == '\t') continue;
    pair += c;
    if (pair.size() == 2) {
      out += static_cast<char>(strtol(pair.c_str(), nullptr, 16));
      pair.clear();
    }
  }
  return out;
}

TcpPeer &play(TcpPeer &peer, const std::string &script) {
  size_t at = 0;
  while (at < script.size()) {
    size_t end = script.find('\n', at);
    if (end == std::string::npos) end = script.size();
    std::string line = script.substr(at, end - at);
    at = end + 1;
    size_t start = line.find_first_not_of(" \t");
    if (start == std::string::npos) continue;
    line.erase(0, start);

    size_t space = line.find(' ');
    std::string verb = line.substr(0, space);
    std::string arg = space == std::string::npos ? "" : line.substr(space + 1);
    std::string conn = TcpPeer::kControl;
    size_t atSign = verb.find('@');
    if (atSign != std::string::npos) {
      conn = verb.substr(atSign + 1);
      if (!conn.empty() && conn.back() == ':') conn.pop_back();
      verb = verb.substr(0, atSign) + (verb.back() == ':' ? ":" : "");
    }
    if (verb == "S:") peer.send(unescape(arg) + "\r\n", conn);
    else if (verb == "S-") peer.send(unescape(arg), conn);
    else if (verb == "C:") peer.expect(unescape(arg) + "\r\n", conn);
    else if (verb == "C-") peer.expect(unescape(arg), conn);
    else if (verb == "SX:") peer.send(unhex(arg), conn);
    else if (verb == "CX:") peer.expect(unhex(arg), conn);
    else if (verb == "stall") peer.stall(atoi(arg.c_str()));
    else if (verb == "close") peer.close(conn);
    else if (verb == "eof") peer.expectEof(conn);
    else peer.step([line](TcpPeer &p) { return p.fail("bad script line: " + line); });
  }
  return peer;
}

}  // namespace kt
