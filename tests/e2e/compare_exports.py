#!/usr/bin/env python3
"""Holds exported items against what independent readers find in the same stores.

    compare_exports.py EXPECTED.json EXPORTED.json [CONVERTED]

EXPORTED lists {"url", "file"} of .msg and .eml files. Message files are read with olefile, MIME with Python's email
package, which must find no defect. CONVERTED is a folder in which
msgconvert has made a mail of every .msg file. Every difference is a line; the last line counts them. Exits with 1 when there is one,
or when a message that is expected was not exported in both forms.
"""
import datetime
import email
import email.policy
import hashlib
import json
import os
import re
import struct
import sys

import olefile

PROPERTIES = "__properties_version1.0"
CONTENT = 0x3701
RECIPIENT_TYPES = {1: "to", 2: "cc", 3: "bcc"}
LONGEST_LINE = 998  # RFC 5322 2.1.1
# Messages by store and node that browsing does not reach, and why.
NOT_REACHED = {
    **{(store, nid): "free and busy times, outside the subtree of messages" for store, nid in (
        ("all-item-kinds", 2097188), ("aspose-Outlook_1", 2097188), ("java-libpst-dist-list", 2097220))},
    **{(store, nid): "directly in the top folder, which lists only folders" for store, nid in (
        ("ruby-msg-msgInMsg", 2097188),
        *(("tika-testPST", nid) for nid in range(2097188, 2097381, 32)))},
}
EPOCH = datetime.datetime(1601, 1, 1)


class Folder:
    """A storage of a .msg file: its properties, recipients and attachments."""

    def __init__(self, file, path, header):
        self.file, self.path = file, path
        data = self.read(PROPERTIES)
        if (len(data) - header) % 16:
            raise ValueError("property stream of %d bytes" % len(data))
        self.entries = {}
        for at in range(header, len(data), 16):
            tag, flags, value = struct.unpack("<II8s", data[at:at + 16])
            if tag >> 16 in self.entries:
                raise ValueError("property %08X twice" % tag)
            self.entries[tag >> 16] = (tag, value)
        self.counts = struct.unpack("<4I", data[8:24]) if header > 8 else None

    def read(self, name):
        return self.file.openstream(self.path + [name]).read()

    def children(self, prefix):
        at = len(self.path)
        names = {entry[at] for entry in self.file.listdir(streams=True, storages=True)
                 if entry[:at] == self.path and len(entry) > at and entry[at].startswith(prefix)}
        return sorted(names)

    def value(self, number):
        if number not in self.entries:
            return None
        tag, fixed = self.entries[number]
        kind = tag & 0xFFFF
        if kind in (0x1F, 0x1E, 0x102):
            data = self.read("__substg1.0_%08X" % tag)
            size = struct.unpack("<I", fixed[:4])[0]
            if size != len(data) + {0x1F: 2, 0x1E: 1, 0x102: 0}[kind]:
                raise ValueError("%08X: size %d of %d bytes" % (tag, size, len(data)))
            if kind != 0x102 and not data:
                raise ValueError("%08X: empty string" % tag)
            return data.decode("utf-16-le") if kind == 0x1F else data
        if kind == 0x03:
            return struct.unpack("<i", fixed[:4])[0]
        if kind == 0x40:
            return time_text(struct.unpack("<Q", fixed)[0])
        return fixed


def time_text(ticks):
    return (EPOCH + datetime.timedelta(seconds=ticks // 10_000_000)).strftime("%Y-%m-%dT%H:%M:%SZ")


def read_msg_object(file, path, header):
    folder = Folder(file, path, header)
    recipients = []
    for name in folder.children("__recip_version1.0_#"):
        row = Folder(file, path + [name], 8)
        recipients.append({"name": row.value(0x3001), "email": row.value(0x39FE) or row.value(0x3003),
                           "type": RECIPIENT_TYPES.get((row.value(0x0C15) or 1) & 0xF)})
    attachments = []
    for name in folder.children("__attach_version1.0_#"):
        row = Folder(file, path + [name], 8)
        attachment = {"name": row.value(0x3707) or row.value(0x3704) or row.value(0x3001), "method": row.value(0x3705)}
        if CONTENT in row.entries and row.entries[CONTENT][0] & 0xFFFF == 0x0D:
            if attachment["method"] == 5:
                attachment["embedded"] = read_msg_object(file, path + [name, "__substg1.0_3701000D"], 24)
        elif CONTENT in row.entries:
            data = row.value(CONTENT)
            attachment.update(data_bytes=len(data), sha256=hashlib.sha256(data).hexdigest())
        attachments.append(attachment)
    if folder.counts != (len(recipients), len(attachments)) * 2:
        raise ValueError("header counts %s" % (folder.counts,))
    return {"class": folder.value(0x001A), "subject": folder.value(0x0037), "sender_name": folder.value(0x0C1A),
            "sender_email": folder.value(0x0C1F), "client_submit_time": folder.value(0x0039),
            "delivery_time": folder.value(0x0E06), "body": folder.value(0x1000), "recipients": recipients,
            "attachments": attachments}


def read_msg(path):
    with olefile.OleFileIO(path) as file:
        if file.root.clsid != "00020D0B-0000-0000-C000-000000000046":
            raise ValueError("class " + file.root.clsid)
        message = read_msg_object(file, [], 32)
        if not Folder(file, [], 32).value(0x340D) & 0x40000:
            raise ValueError("not marked as Unicode")
        for name in ("00020102", "00030102", "00040102"):
            file.openstream(["__nameid_version1.0", "__substg1.0_" + name]).read()
        return message


def people(headers, kind):
    for value in headers or []:
        for group in value.groups:
            if group.addresses:
                for address in group.addresses:
                    yield {"name": address.display_name or address.addr_spec, "email": address.addr_spec, "type": kind}
            else:
                yield {"name": group.display_name, "email": None, "type": kind}


def read_mime_part(message):
    defects = [repr(d) for part in message.walk() for d in part.defects]
    defects += ["%s: %r" % (name, d) for part in message.walk() for name, value in part.items()
                for d in getattr(value, "defects", [])]
    if defects:
        raise ValueError("; ".join(defects))
    plain = message.get_body(("plain",))
    attachments = []
    for part in message.iter_attachments() if message.is_multipart() else []:
        attachment = {"name": part.get_filename()}
        if part.get_content_type() == "message/rfc822":
            attachment["embedded"] = read_mime_part(part.get_content())
        else:
            data = part.get_payload(decode=True)
            attachment.update(data_bytes=len(data), sha256=hashlib.sha256(data).hexdigest())
        attachments.append(attachment)
    date = message["date"]
    return {"subject": message["subject"], "date": date and date.datetime.strftime("%Y-%m-%dT%H:%M:%SZ"),
            "senders": list(people(message.get_all("from"), "from")) + list(people(message.get_all("sender"), "from")),
            "recipients": list(people(message.get_all("to"), "to")) + list(people(message.get_all("cc"), "cc")),
            "body": plain.get_content() if plain is not None else None, "attachments": attachments,
            "id": message["message-id"]}


def read_eml(path):
    with open(path, "rb") as file:
        data = file.read()
    longest = max(len(line) for line in data.split(b"\r\n"))
    if longest > LONGEST_LINE:
        raise ValueError("a line of %d bytes" % longest)
    return read_mime_part(email.message_from_bytes(data, policy=email.policy.default))


def lines(text):
    return (text or "").replace("\r\n", "\n").replace("\r", "\n").rstrip("\n")


def one_line(text):
    return " ".join(re.sub(r"[\x00-\x1f\x7f]", " ", text or "").split())


def is_smtp(address):
    return bool(address) and re.fullmatch(r"[^\s@/,<>\"']+@[^\s@,<>\"']+", address) is not None


class Comparison:
    def __init__(self):
        self.differences = 0

    def differ(self, where, what, found, wanted):
        self.differences += 1
        print("%s: %s is %r, expected %r" % (where, what, found, wanted))

    def equal(self, where, what, found, wanted):
        if (found or None) != (wanted or None):
            self.differ(where, what, found, wanted)

    def attachments(self, where, found, wanted):
        self.equal(where, "number of attachments", len(found), len(wanted or []))
        # MIME lists what the text shows apart from the rest.
        left = list(found)
        for attachment in wanted or []:
            match = next((f for f in left if self.is_same(f, attachment)), None)
            if match is None:
                self.differ(where, "an attachment", [(f.get("name"), f.get("data_bytes")) for f in left], attachment)
                continue
            left.remove(match)
            if attachment.get("embedded") and match.get("embedded"):
                inner, expected = match["embedded"], attachment["embedded"]
                self.equal(where + " embedded", "subject", one_line(inner["subject"]), one_line(expected["subject"]))
                if "body_chars" in expected and inner["body"] != "not looked at":
                    self.equal(where + " embedded", "has a body", bool(lines(inner["body"])), bool(expected["body_chars"]))
                if inner["attachments"] is not None:
                    self.attachments(where + " embedded", inner["attachments"], expected.get("attachments", []))

    @staticmethod
    def is_same(found, wanted):
        if bool(found.get("embedded")) != bool(wanted.get("embedded")):
            return False
        if wanted.get("name") and one_line(found.get("name")) != one_line(wanted["name"]):
            return False
        return not wanted.get("sha256") or found.get("sha256") == wanted["sha256"]

    def msg(self, where, found, wanted):
        for key in ("class", "subject", "sender_name", "sender_email", "client_submit_time", "delivery_time"):
            self.equal(where, key, found[key], wanted[key])
        people = lambda rows: sorted((r["name"] or "", r["email"] or "", r["type"] or "") for r in rows or [])
        self.equal(where, "recipients", people(found["recipients"]), people(wanted["recipients"]))
        if wanted["body_from"] == "plain":
            self.equal(where, "characters of the body", len(found["body"] or ""), wanted["plain_body_chars"])
        self.words(where, found["body"], wanted)
        self.attachments(where, found["attachments"], wanted["attachments"])

    def words(self, where, body, wanted):
        for word in wanted["body_probe"]:
            if word not in (body or ""):
                self.differ(where, "the body", (body or "")[:80], "with " + word)

    def eml(self, where, found, wanted, saved):
        self.headers(where, found, wanted)
        self.equal(where, "body", lines(found["body"]), lines(saved["body"]))
        self.embedded(where, found, saved)
        self.words(where, found["body"], wanted)
        self.attachments(where, found["attachments"], wanted["attachments"])
        if not found["id"]:
            self.differ(where, "message id", None, "one")

    def embedded(self, where, found, saved):
        """What is embedded in the mail against what is embedded in the message file: both keep its order."""
        inner = lambda message: [a["embedded"] for a in message["attachments"] if a.get("embedded")]
        self.equal(where, "number of embedded messages", len(inner(found)), len(inner(saved)))
        for mail, message in zip(inner(found), inner(saved)):
            self.headers(where + " embedded", mail, message)
            self.equal(where + " embedded", "body", lines(mail["body"]), lines(message["body"]))
            self.embedded(where + " embedded", mail, message)

    def headers(self, where, found, wanted):
        self.equal(where, "subject", one_line(found["subject"]), one_line(wanted["subject"]))
        sent = wanted["client_submit_time"] or wanted["delivery_time"]
        if sent:
            self.equal(where, "date", found["date"], sent)
        if wanted["sender_name"] and one_line(wanted["sender_name"]) not in [one_line(p["name"]) for p in found["senders"]]:
            self.differ(where, "sender", found["senders"], wanted["sender_name"])
        if is_smtp(wanted["sender_email"]) and wanted["sender_email"] not in [p["email"] for p in found["senders"]]:
            self.differ(where, "sender's address", found["senders"], wanted["sender_email"])
        # Blind copies stay out of a mail's headers.
        shown = [r for r in wanted["recipients"] or [] if r["type"] != "bcc"]
        person = lambda r: (one_line(r["name"]) or r["email"] or "", r["email"] if is_smtp(r["email"]) else "", r["type"])
        self.equal(where, "recipients", sorted(map(person, found["recipients"])), sorted(map(person, shown)))

    def converted(self, where, file, wanted):
        # The converter makes addresses and dates of its own: what it read is its subject and its attachments.
        with open(file, "rb") as raw:
            message = email.message_from_binary_file(raw, policy=email.policy.default)
        self.equal(where, "subject", one_line(message["subject"]), one_line(wanted["subject"]))
        parts = list(message.iter_attachments()) if message.is_multipart() else []
        self.attachments(where, [{
            "name": part.get_filename() or part.get_content_type(),
            "sha256": hashlib.sha256(part.get_payload(decode=True) or b"").hexdigest(),
            "embedded": part.get_content_type() == "message/rfc822" and {
                "subject": part.get_content()["subject"], "body": "not looked at", "attachments": None},
        } for part in parts], wanted["attachments"])


def main():
    expected, exported = (json.load(open(path, encoding="utf-8")) for path in sys.argv[1:3])
    converted = sys.argv[3] if len(sys.argv) > 3 else None
    wanted = {}
    for name, store in expected["files"].items():
        for folder in store.get("folders", []):
            for message in folder["messages"]:
                wanted[os.path.splitext(name)[0], message["nid"]] = message
    comparison = Comparison()
    files = {}
    for entry in exported:
        vault = re.search(r"\\([^\\/]+)\.db/", entry["url"])
        token = re.search(r"/([0-9A-F]+)\[\[\d+\]\]\.zkm$", entry["url"])
        if not vault or not token:
            continue
        nid = struct.unpack("<I", bytes.fromhex(token.group(1))[20:24])[0]
        files.setdefault((vault.group(1), nid), {})[os.path.splitext(entry["file"])[1]] = entry["file"]
    stores = {key[0] for key in files}
    for key in sorted(set(wanted) - set(files) - set(NOT_REACHED)):
        comparison.differ("%s %d" % key, "a message", "not exported", wanted[key]["class"])
    compared = 0
    for key, forms in sorted(files.items()):
        where = "%s %d" % key
        if key not in wanted:
            comparison.differ(where, "a message", forms, "none")
            continue
        try:
            saved = read_msg(forms[".msg"])
            comparison.msg(where + " msg", saved, wanted[key])
            comparison.eml(where + " eml", read_eml(forms[".eml"]), wanted[key], saved)
            if converted:
                name = os.path.splitext(os.path.basename(forms[".msg"]))[0] + ".eml"
                comparison.converted(where + " converted", os.path.join(converted, name), wanted[key])
            compared += 1
        except (ValueError, OSError, KeyError, struct.error) as error:
            comparison.differ(where, "reading", "%s: %s" % (type(error).__name__, error), "no error")
    print("%d messages of %d stores compared, %d differences" % (compared, len(stores), comparison.differences))
    return 1 if comparison.differences or not compared else 0


if __name__ == "__main__":
    sys.exit(main())
