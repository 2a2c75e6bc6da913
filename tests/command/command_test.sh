#!/bin/bash
# command_test.sh GROUP COMMAND...: runs the tarvikel command (COMMAND, with
# its emulator) against the real servers that the wrapper scripts started
# (see CMakeLists.txt), one row per run: how (t: on a pseudo-terminal),
# expected exit code, a fragment of the output ("!" first: must be absent),
# arguments. Files moved are compared with the originals on both sides.
set -u
group=$1 && shift && cmd=("$@")
work=$(mktemp -d "${TMPDIR:-/tmp}/kel-command.XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work" && export TZ=UTC
head -c 150000 /dev/urandom >scan.pdf
failures=0
run() {
  local how=$1 want=$2 fragment=$3 pre=() out rc found=1 expect=1
  shift 3
  [ "$how" = t ] && pre=(python3 -c 'import pty, sys; sys.exit(pty.spawn(sys.argv[1:]) >> 8)')
  out=$("${pre[@]}" "${cmd[@]}" "$@" 2>&1 </dev/null)
  rc=$?
  [[ $fragment == '!'* ]] && expect=0
  [[ $out == *"${fragment#!}"* ]] || found=0
  [ $rc = "$want" ] && [ $found = $expect ] || fail "tarvikel $* -> exit $rc, wanted $want and '$fragment': $out"
}
fail() { echo "FAIL: $*"; failures=$((failures + 1)); }
same() { cmp -s "$1" "$2" || fail "$1 and $2 differ"; }

case $group in
date)
  run - 0 '1970/01/02 10:17:36' --no-settings date -f number -r ymd -o seconds 123456
  run - 0 '02/Jan/1970' --no-settings date --set DATE_FORM=0x21 123456
  run - 2 'KEL_TIME_ERR_OPTIONS' --no-settings date -o hyphen,space
  run - 2 "unknown option 'fancy'" --no-settings date -o seconds,fancy
  run - 3 "NOSUCH = '1' (--set)" --no-settings date --set NOSUCH=1
  codes=$("${cmd[@]}" codes)  # a row for every result code of the public headers
  for n in $(grep -hoE '^#define KEL_\w+ +(\(\(kelResult\))?0x[0-9a-fA-F]{8}u' "$(dirname "$0")"/../../include/*.h | cut -d' ' -f2); do [[ $codes == *" $n "* ]] || fail "no row for $n"; done ;;
ftp)
  mkdir -m 777 "$KEL_FTP_ROOT/in"
  f=(--no-settings ftp --server "$KEL_FTP_HOST" --user "$KEL_FTP_USER" --password "$KEL_FTP_PASS")
  run - 0 '!B/s' "${f[@]}" put scan.pdf in/d.pdf
  same scan.pdf "$KEL_FTP_ROOT/in/d.pdf"
  run - 0 '' "${f[@]}" get in/d.pdf back.pdf
  same scan.pdf back.pdf
  run t 0 '100% 146.5 KiB of 146.5 KiB' "${f[@]}" put scan.pdf d.pdf
  run - 0 '' "${f[@]}" rm d.pdf
  [ ! -e "$KEL_FTP_ROOT/d.pdf" ] || fail "d.pdf not deleted"
  run - 5 'KEL_FTPC_BAD_LOGIN (0x58A01102)' "${f[@]}" --password wrong put scan.pdf
  run - 6 'KEL_FTPC_BAD_SERVER' "${f[@]}" --server nosuch.invalid put scan.pdf
  run - 5 'KEL_FTPC_UNAVAILABLE' "${f[@]}" get missing.pdf
  [ ! -e missing.pdf ] || fail "a failed fetch left missing.pdf"
  run - 3 'missing setting FTP_SERVER' --no-settings ftp put scan.pdf ;;
smb)
  s=(--no-settings smb --server "\\\\$KEL_SMB_ADDR\\SHARE" --password "$KEL_SMB_PASS")
  run - 0 '!MAC' "${s[@]}" put scan.pdf
  same scan.pdf "$KEL_SMB_SHARE/scan.pdf"
  run - 0 '' "${s[@]}" get scan.pdf back.pdf
  same scan.pdf back.pdf
  run - 0 '' "${s[@]}" rm scan.pdf
  run - 5 'file not found' "${s[@]}" rm scan.pdf
  run - 5 'bad share password' "${s[@]}" --password wrong put scan.pdf
  run - 6 'KEL_SMB_ERR_NO_ANSWER' "${s[@]}" --server '\\NOSUCHHOST\SHARE' put scan.pdf
  run - 3 'missing setting SMB_SERVER' --no-settings smb get scan.pdf ;;
mail)
  printf '%s\n' "SMTP_SERVER = $KEL_SMTP_HOST" "SMTP_PORT = $KEL_SMTP_PORT" "MAIL_SENDER = d@kel.test" \
    "SMTP_AUTH_USER = $KEL_POP3_USER" "SMTP_AUTH_PASSWORD = $KEL_POP3_PASS" "POP3_SERVER = $KEL_POP3_HOST" \
    "POP3_PORT = $KEL_POP3_PORT" "POP3_USER = to" "POP3_PASSWORD = $KEL_POP3_PASS" "PRINTER = Room 4" >settings
  m=(--settings settings mail send --to to@kel.test)
  printf 'Scanned.\n.dot\n' >body
  run - 0 '' "${m[@]}" --cc cc@kel.test --body body scan.pdf
  for _ in $(seq 50); do [ -n "$("${cmd[@]}" --settings settings pop3 list)" ] && break; sleep 0.1; done
  run - 0 'KiB' --settings settings pop3 list
  run - 0 '' --settings settings pop3 get 1 message
  python3 -c 'import email, sys; m = email.message_from_binary_file(open("message", "rb"))
parts = [p.get_payload(decode=True) for p in m.walk() if not p.is_multipart()]
sys.exit(m["Subject"] != "=?utf-8?B?U2NhbiBmcm9tIFJvb20gNA==?=" or parts != [b"Scanned.\n.dot\n", open("scan.pdf", "rb").read()])' ||
    fail "the message fetched differs from the one sent"
  run - 0 '' --settings settings pop3 rm 1
  run - 0 '!KiB' --settings settings pop3 list
  run - 5 'Authentication failed' --settings settings pop3 list --password wrong
  run - 5 'KEL_MAIL_ERR_REPLY' --settings settings pop3 get 7
  run - 5 'KEL_MAIL_ERR_REPLY' "${m[@]}" --password wrong --body body
  run - 5 'KEL_MAIL_ERR_REPLY' "${m[@]}" --to nobody@kel.test --body body
  run - 6 'KEL_MAIL_ERR_HOST' "${m[@]}" --server nosuch.invalid --body body
  run - 3 'missing setting MAIL_SENDER' "${m[@]}" --set MAIL_SENDER= --body body ;;
esac
[ $failures = 0 ]
