"""mime_check.py MESSAGE SUBJECT TO CC TEXT [NAME FILE]...: reads a fetched
message with Python's email package, prints each difference from what was
sent and exits 1 if there is any."""
import email
import email.policy
import sys

path, subject, to, cc, text = sys.argv[1:6]
with open(path, "rb") as f:
    msg = email.message_from_binary_file(f, policy=email.policy.default)
parts = list(msg.iter_parts())
want = [str(subject), to, cc, None, 3, open(text, "rb").read()]
got = [str(msg["subject"]), str(msg["to"]), str(msg["cc"]), msg["bcc"], len(parts),
       parts[0].get_payload(decode=True) if parts else None]
for part, name, data in zip(parts[1:], sys.argv[6::2], sys.argv[7::2]):
    want += [name, open(data, "rb").read()]
    got += [part.get_filename(), part.get_payload(decode=True)]
bad = [f"got {g!r:.80}, want {w!r:.80}" for g, w in zip(got, want) if g != w]
print("\n".join(bad))
sys.exit(1 if bad else 0)
