# mime_check.py DIR SUBJECT NAME...: reads a fetched message on stdin with
# Python's email package and compares it with what was sent: the text part is
# DIR/text, each attachment DIR/NAME. Prints each difference, exits 1 if any.
import email.policy
import sys

folder, subject, *names = sys.argv[1:]
msg = email.message_from_binary_file(sys.stdin.buffer, policy=email.policy.default)
parts = list(msg.iter_parts())
got = [str(msg["subject"]), str(msg["to"]), str(msg["cc"]), msg["bcc"], [p.get_filename() for p in parts]]
want = [subject, "to@kel.test", "cc@kel.test", None, [None] + names]
for part, name in zip(parts, ["text"] + names):
    got.append(part.get_payload(decode=True))
    want.append(open(f"{folder}/{name}", "rb").read())
bad = [f"got {g!r:.80}, want {w!r:.80}" for g, w in zip(got, want) if g != w]
print("\n".join(bad))
sys.exit(1 if bad else 0)
