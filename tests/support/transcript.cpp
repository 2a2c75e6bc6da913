#include "transcript.h"

#include <ctype.h>
#include <stdlib.h>

#include <sstream>

namespace kt {

std::string unescape(const std::string &text) {
  std::string out;
  for (size_t i = 0; i < text.size(); i++) {
    char c = text[i], next = i + 1 < text.size() ? text[i + 1] : 0;
    if (c == '\\' && next == 'x') {
      out += static_cast<char>(strtol(text.substr(i + 2, 2).c_str(), nullptr, 16));
      i += 3;
    } else if (c == '\\' && next) {
      out += next == 'r' ? '\r' : next == 'n' ? '\n' : next == 't' ? '\t' : next == '0' ? '\0' : next;
      i++;
    } else {
      out += c;
    }
  }
  return out;
}

std::string unhex(const std::string &hex) {
  std::string out, digits;
  for (char c : hex)
    if (!isspace(static_cast<unsigned char>(c))) digits += c;
  for (size_t i = 0; i + 1 < digits.size(); i += 2)
    out += static_cast<char>(strtol(digits.substr(i, 2).c_str(), nullptr, 16));
  return out;
}

TcpPeer &play(TcpPeer &peer, const std::string &script) {
  std::istringstream lines(script);
  for (std::string line, verb, conn, arg; std::getline(lines, line);) {
    std::istringstream words(line);
    arg.clear();
    if (words >> verb && words.get() == ' ') std::getline(words, arg);
    size_t at = verb.find('@'), colon = verb.back() == ':';
    conn = at == std::string::npos ? TcpPeer::kControl : verb.substr(at + 1, verb.size() - at - 1 - colon);
    verb = verb.substr(0, at) + (colon && at != std::string::npos ? ":" : "");
    std::string first = arg.substr(0, arg.find(' ')), second = arg.substr(first.size() + (first != arg));
    if (verb == "S:" || verb == "S-") peer.send(unescape(arg) + (verb == "S:" ? "\r\n" : ""), conn);
    else if (verb == "C:" || verb == "C-") peer.expect(unescape(arg) + (verb == "C:" ? "\r\n" : ""), conn);
    else if (verb == "SX:") peer.send(unhex(arg), conn);
    else if (verb == "CX:") peer.expect(unhex(arg), conn);
    else if (verb == "stall") peer.stall(atoi(arg.c_str()));
    else if (verb == "close") peer.close(conn);
    else if (verb == "eof") peer.expectEof(conn);
    else if (verb == "listen") peer.listen(arg);
    else if (verb == "accept") peer.accept(first, second);
    else if (verb == "connect") peer.connect(first, second);
    else if (!verb.empty()) peer.step([line](TcpPeer &p) { return p.fail("bad script line: " + line); });
    verb.clear();
  }
  return peer;
}

}  // namespace kt
