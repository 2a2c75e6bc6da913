// A conversation with a scripted peer written as text, one step a line, so a
// protocol case reads as the server's lines and the client's exact bytes:
//
//   S: text    the server sends text and CR LF
//   S- text    the server sends text as it stands (no line end added)
//   C: text    the client must send exactly text and CR LF
//   C- text    the client must send exactly text
//   SX: hex    the server sends these bytes (hex pairs; blanks are ignored)
//   CX: hex    the client must send exactly these bytes
//   stall N    the server does nothing for N ms
//   close      the server closes the connection
//   eof        the client must close with nothing more sent
//   listen L           the server opens listener L at once, before any
//                      step runs (see TcpPeer::listen)
//   accept L conn      the client's connection to L becomes conn
//   connect VAR conn   the server connects to the port held in the variable
//                      VAR (see TcpPeer::connect) as conn
//
// A step may name a connection other than the control one: "S@data: text",
// "close@data", "eof@data". In text, \r \n \t \0 \\ and \xNN stand for the
// bytes they name. Leading blanks of a line and empty lines are skipped, so
// a script can be an indented raw string.
#pragma once

#include "peer.h"

namespace kt {

// Appends the steps of script to peer; throws nothing, reports a malformed
// script as a failing step.
TcpPeer &play(TcpPeer &peer, const std::string &script);

// The bytes that text with the escapes above stands for.
std::string unescape(const std::string &text);
// The bytes that hex pairs stand for; blanks between them are ignored.
std::string unhex(const std::string &hex);

}  // namespace kt
