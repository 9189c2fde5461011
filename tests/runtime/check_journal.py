"""Checks a journal with nothing but what its description says: one JSON object a line, sealed by the SHA-256 of its
compact, key-sorted, raw UTF-8 form without the digest. Prints the number of batches and the last sequence."""

import hashlib
import json
import sys

batches = 0
expected = 1
with open(sys.argv[1], "rb") as journal:
    for line in journal:
        if not line.endswith(b"\n"):
            break
        if line == b"\n":
            continue
        text = line[:-1].decode("utf-8", "strict")
        envelope = json.loads(text)
        if json.dumps(envelope, sort_keys=True, separators=(",", ":"), ensure_ascii=False) != text:
            sys.exit("line is not in the canonical form: " + text)
        digest = envelope.pop("sha256")
        sealed = json.dumps(envelope, sort_keys=True, separators=(",", ":"), ensure_ascii=False)
        if hashlib.sha256(sealed.encode("utf-8")).hexdigest() != digest:
            sys.exit("checksum mismatch in batch " + str(batches + 1))
        if set(envelope) != {"v", "sessionId", "firstSequence", "lastSequence", "events"} or envelope["v"] != 1:
            sys.exit("unexpected envelope")
        for event in envelope["events"]:
            if event["sequence"] != expected or event["sessionId"] != envelope["sessionId"]:
                sys.exit("unexpected event " + str(event["sequence"]))
            expected += 1
        if envelope["lastSequence"] != expected - 1:
            sys.exit("unexpected last sequence")
        batches += 1
print(batches, expected - 1)
