#!/usr/bin/env python3
"""Writes a realistic audit file for benchmarks and load tests.

The file holds N sections of all 22 kinds, in the proportions a busy mail server writes them:
mostly routing and delivery sections with a handful of recipients (now and then a distribution
list of dozens), then sign-ons and sign-offs, gateway traffic, mailbox scans, requests,
bulletins, directory synchronisation and the odd subsystem start and stop. Event times increase
strictly (at least one second apart) and span several days for a large N, so a converter
following the file starts new output generations as it goes. Sections are separated by one to
three blank lines. Every line is one a converter knows, so converting the file should leave the
error file empty.

The output depends only on the options: the same --seed, --sections and --start give the same
bytes.

    bench/generate_audit.py --sections 1000000 --seed 1 /tmp/audit

With --profile small, every kind is equally frequent and every section names one recipient:
many small sections, the case where the per-section cost of converting counts most.
"""

import argparse
import random
import sys
import time

FIRST = ("john mary peter anna james linda robert susan michael karen david nancy richard lisa "
         "thomas betty charles helen daniel sandra paul donna mark carol george ruth kenneth "
         "sharon steven michelle edward laura brian sarah ronald kimberly anthony deborah kevin "
         "jessica jason shirley matthew cynthia gary angela timothy melissa jose brenda larry "
         "amy jeffrey anne frank rebecca scott virginia eric kathleen stephen pamela andrew "
         "martha raymond debra gregory amanda joshua stephanie jerry carolyn dennis christine "
         "walter marie patrick janet peter catherine harold frances douglas ann henry joyce").split()
LAST = ("smith jones taylor brown williams wilson johnson davies robinson wright thompson evans "
        "walker white roberts green hall wood jackson clarke patel khan lewis james phillips "
        "mason mitchell rose davis rodriguez cox alexander garden campbell johnston moore "
        "smyth o'neill doherty stewart quinn murphy graham mclaughlin hamilton murray hughes "
        "muller schmidt schneider fischer weber meyer wagner becker schulz hoffmann koch "
        "richter klein wolf neumann schwarz zimmermann braun hofmann hartmann lange schmitt "
        "werner krause meier lehmann schmid schulze maier kohler herrmann konig walter").split()
DEPTS = ("SALES ACCOUNTS LEGAL HR IT OPS MKTG SUPPORT RND FINANCE PURCHASE LOGISTICS "
         "BOARD ADMIN PRESS QA FACILITIES TRAINING").split()
DOMAINS = ("example.org example.com example.net mail.example.de corp.example.co.uk "
           "partner.example.fr lists.example.edu").split()
SUBJECT_WORDS = ("quarterly figures minutes meeting budget draft review contract invoice "
                 "order delivery schedule agenda report update proposal offer holiday plan "
                 "travel expenses approval request summary notes call visit project phase "
                 "status forecast audit training results release").split()
SUBJECT_TAILS = ("final", "draft 2", "please read", "urgent", "for approval", "v3",
                 "as discussed", "3 March", "week 14", "Q2", "revised", "FYI")
QUEUES = (["LOCAL"] * 12 + ["ekx400-out", "ekx400-in", "EKX400-GW", "smintfc-out",
                            "SMINTFC", "unixgw-out", "deskgw", "faxgw-out", "smsgw"])
BULLETINS = ("company-news", "it-announcements", "canteen-menu", "hr-notices",
             "sales-leads", "safety-bulletin", "press-review")
REQUESTS = ("directory-list", "user-status", "mailbox-info", "distribution-list",
            "bulletin-subscribe", "help", "queue-status")
MAIL_SYSTEMS = ("Main Mail System", "Branch Office Mail", "Head Office", "Mail Hub North",
                "Mail Hub South")

# Kind, relative weight (out of 1000).
KINDS = (
    ("routing", 380), ("delivery", 300), ("user-signon", 55), ("user-signoff", 55),
    ("x400-out", 25), ("x400-in", 25), ("unix-out", 25), ("unix-in", 25), ("fax", 12),
    ("request", 14), ("bulletin", 10), ("desk-in", 10), ("desk-out", 10), ("sms-out", 8),
    ("sms-in", 8), ("ekscan", 5), ("notes-in", 6), ("notes-out", 6), ("dirsync-in", 4),
    ("dirsync-out", 4), ("subsystem-start", 2), ("subsystem-stop", 2),
)

SEPARATORS = ("\n", "\n", "\n", "\n\n", "\n\n\n")


class Pools:
    """Lines and values drawn at random, made once so that each section only picks."""

    def __init__(self, rng):
        people = []
        for i in range(3000):
            first = rng.choice(FIRST)
            last = rng.choice(LAST)
            dept = rng.choice(DEPTS)
            form = i % 10
            if form < 6:
                people.append(f"{first} {last}/{dept}")
            elif form < 8:
                people.append(f"{first.capitalize()} {last.capitalize()}/{dept}")
            elif form == 8:
                people.append(f"{first}.{last}/{dept}/HQ")
            else:
                people.append(f"{first} {last[0]}. {last}/{dept}")
        self.people = people
        internet = []
        for _ in range(1000):
            internet.append(f"{rng.choice(FIRST)}.{rng.choice(LAST)}@{rng.choice(DOMAINS)}")
        self.internet = internet
        x400 = []
        for _ in range(300):
            x400.append(f"C=DE;ADMD=ViaT;PRMD={rng.choice(DEPTS).lower()};O=Example;"
                        f"S={rng.choice(LAST).capitalize()};G={rng.choice(FIRST).capitalize()}")
        self.x400 = x400
        self.phones = [f"+{rng.choice((44, 49, 33, 1))} {rng.randint(20, 99)} "
                       f"{rng.randint(1000000, 9999999)}" for _ in range(300)]
        subjects = []
        for i in range(2000):
            words = " ".join(rng.choice(SUBJECT_WORDS) for _ in range(rng.randint(1, 5)))
            subject = words.capitalize()
            form = i % 8
            if form < 3:
                subject += ", " + rng.choice(SUBJECT_TAILS)
            elif form == 3:
                subject = "Re: " + subject + ", " + rng.choice(SUBJECT_TAILS)
            elif form == 4:
                subject = "Fwd: " + subject
            elif form == 5:
                subject += " (" + rng.choice(SUBJECT_TAILS) + ")"
            elif form == 6 and i % 16 == 6:
                subject += " \\\\ " + rng.choice(SUBJECT_TAILS)  # an escaped backslash
            subjects.append(subject)
        self.subjects = subjects
        self.users = []  # (number, mail system, name1, name2)
        for i in range(2000):
            first, last = rng.choice(FIRST), rng.choice(LAST)
            self.users.append((str(1000 + i), rng.choice(MAIL_SYSTEMS),
                               (first[0] + last)[:12], (last + first[0])[:12]))
        # Routing recipients: the recipient line and its ack-req and queue lines.
        cats = ["to"] * 7 + ["cc"] * 2 + ["bcc"]
        self.routing_recips = []
        for _ in range(5000):
            queue = rng.choice(QUEUES)
            address = rng.choice(self.internet) if queue.startswith("smintfc") or \
                queue.startswith("SMINTFC") or queue.startswith("unix") else rng.choice(people)
            self.routing_recips.append(f"recipient-{rng.choice(cats)} {address}\n"
                                       f"ack-req {rng.choice('0001')}\nqueue {queue}\n")
        # Delivery recipients, a few with a non-delivery reason.
        self.delivery_recips = []
        for i in range(5000):
            line = f"recipient-{rng.choice(cats)} {rng.choice(people)}\n"
            if i % 25 == 0:
                line += f"non-delivery-reason {rng.choice((1, 2, 3, 5, 7, 12))}\n"
            self.delivery_recips.append(line)
        self.internet_recips = [f"recipient-{rng.choice(cats)} {a}\n" for a in self.internet]
        self.x400_recips = [f"recipient-to {a}\n" for a in self.x400]


def recipient_count(rng):
    """Mostly one to eight recipients, now and then a distribution list of dozens."""
    r = rng.random()
    if r < 0.97:
        return (1, 1, 1, 2, 2, 2, 3, 3, 4, 5, 6, 8)[int(r * 12.37)]
    return rng.randint(12, 60)


def make_generator(rng, pools, start, small=False):
    global recipient_count
    if small:
        recipient_count = lambda rng: 1  # noqa: E731
    r = rng.random
    pick = rng.choice
    sample = rng.choices
    people, subjects, users = pools.people, pools.subjects, pools.users
    state = {"t": start, "n": 0, "last_ua": "UA-0", "last_mta": "MTA-0"}

    def ids():
        state["n"] += 1
        n = state["n"]
        ua = f"UA-{state['t'] // 86400}-{n:07d}"
        mta = f"MTA-{(n * 7919) % 100000000:08d}.{n & 0xff:02x}"
        state["last_ua"], state["last_mta"] = ua, mta
        return ua, mta

    def routing():
        ua, mta = ids()
        n = recipient_count(rng)
        size = int(1024 + r() * r() * 2000000)
        parts = 1 + int(r() * r() * 4)
        out = [f"type 1\npriority {pick('1112')}\nsensitivity 0\nimportance {pick('0112')}\n"
               f"created-locally {pick('0111')}\nhop-count {pick('0001')}\n"
               f"originator {pick(people)}\nua-message-id {ua}\n"]
        out.extend(sample(pools.routing_recips, k=n))
        out.append(f"message-size {size}\nmta-message-id {mta}\nsubject {pick(subjects)}\n"
                   f"part-count {parts}\n")
        if parts > 1:
            out.append(f"part-type 2\npart-size {size // parts}\n")
        if r() < 0.1:
            out.append("ack-req 1\nua-ack-id UA-ACK-1\n")
        return "".join(out)

    def delivery():
        ua, mta = state["last_ua"], state["last_mta"]
        if r() < 0.3:
            ua, mta = ids()
        n = recipient_count(rng)
        recips = sample(pools.delivery_recips, k=n)
        out = [f"type 1\noriginator {pick(people)}\nua-message-id {ua}\n"]
        out.extend(recips)
        if r() < 0.05:
            out.append(f"auto-{pick(('forward', 'notify', 'reply', 'file', 'print'))} 1\n")
        out.append(f"delivered-count {n}\nmta-message-id {mta}\nsubject {pick(subjects)}\n")
        return "".join(out)

    def signon():
        num, system, name1, name2 = pick(users)
        extra = f"designate-user {pick(users)[0]} {pick(people)}\n" if r() < 0.05 else ""
        return (f"user {num} {system} {name1} {name2}\nsignon-status {pick('0000001')}\n"
                f"client-type {pick('1223')}\n{extra}user-agent-id UA{int(r() * 90) + 10}\n")

    def signoff():
        num, system, _, _ = pick(users)
        return (f"user {num} {system}\nsignoff-status {pick('00001')}\n"
                f"duration {int(r() * 9000)}\n")

    def x400_out():
        ua, mta = ids()
        recips = "".join(sample(pools.x400_recips, k=min(recipient_count(rng), 4)))
        return (f"priority {pick('012')}\nsensitivity 0\nimportance 1\n"
                f"originator {pick(people)}\nua-message-id {ua}\n{recips}"
                f"mta-message-id {mta}\nsubject {pick(subjects)}\n")

    def x400_in():
        ua, mta = ids()
        arnd = "all-recips-non-deliv yes\n" if r() < 0.03 else ""
        return (f"type 1\npriority {pick('012')}\nsensitivity 0\nimportance 1\n"
                f"originator {pick(pools.x400)}\nua-message-id {ua}\n"
                f"mta_message-id {mta}\nrecipient-to {pick(people)}\n{arnd}"
                f"subject {pick(subjects)}\n")

    def unix_out():
        ua, mta = ids()
        recips = "".join(sample(pools.internet_recips, k=recipient_count(rng)))
        return (f"originator {pick(people)}\nua-message-id {ua}\ntype 1\n{recips}"
                f"mta-message-id {mta}\nunix-message-id <{mta}@mailhost.example.org>\n"
                f"hop-count 1\nsubject {pick(subjects)}\n")

    def unix_in():
        ua, mta = ids()
        return (f"originator {pick(pools.internet)}\nua-message-id {ua}\n"
                f"unix-message-id <{mta}.{state['n']}@{pick(DOMAINS)}>\n"
                f"subject {pick(subjects)}\nrecipient-to {pick(people)}\n")

    def fax():
        ua, mta = ids()
        n = min(recipient_count(rng), 5)
        recips = "".join(f"recipient-to {p}\n" for p in sample(pools.phones, k=n))
        return (f"priority 1\noriginator {pick(people)}\nua-message-id {ua}\n{recips}"
                f"sent-pages {1 + int(r() * 12)}\nsent-time {int(r() * 600)}\n"
                f"duration {int(r() * 700)}\nretries {pick('0001')}\n"
                f"mta-message-id {mta}\nsubject {pick(subjects)}\n")

    def request():
        ua, mta = ids()
        return (f"originator {pick(people)}\nua-message-id {ua}\n"
                f"originator-admin-cap {pick('0012')}\nrequest-name {pick(REQUESTS)}\n"
                f"mta-message-id {mta}\nsubject {pick(subjects)}\n")

    def bulletin():
        ua, mta = ids()
        return (f"type 1\noriginator {pick(people)}\nua-message-id {ua}\n"
                f"bulletin-name {pick(BULLETINS)}\nbulletin-type 1\nmta-message-id {mta}\n"
                f"subject {pick(subjects)}\n")

    def desk_in():
        ua, _ = ids()
        return (f"originator {pick(people)}\ntype 1\nua-message-id {ua}\n"
                f"desk-message-id D{state['n']:08d}\nsubject {pick(subjects)}\n"
                f"recipient-to {pick(people)}\n")

    def desk_out():
        ua, mta = ids()
        recips = "".join(f"recipient-to {p}\n" for p in sample(people, k=min(
            recipient_count(rng), 6)))
        return (f"originator {pick(people)}\ntype 1\nua-message-id {ua}\n{recips}"
                f"subject {pick(subjects)}\nmta-message-id {mta}\n")

    def sms():
        reason = f"non-delivery-reason {pick('1234')}\n" if r() < 0.05 else ""
        return f"message-size {20 + int(r() * 140)}\n{reason}"

    def notes():
        return (f"originator {pick(people)}\nrecipient-to {pick(people)}\n"
                f"subject {pick(subjects)}\n")

    def ekscan():
        out = []
        for _ in range(1 + int(r() * 12)):
            trays = 1 + int(r() * 5)
            counts = [int(r() * 200) for _ in range(trays)]
            out.append(f"user {pick(people)}\nuser-messages {sum(counts)}\n"
                       f"user-size {sum(counts) * 3072 + 512}\n")
            for i, c in enumerate(counts):
                name = ("inbox", "outbox", "filed", "pending", "trash")[i]
                out.append(f"tray {i + 1} {name} {c} {c * 3072}\n")
        out.append(f"bb-area-messages {int(r() * 500)}\nbb-area-size {int(r() * 9000000)}\n"
                   f"duration {1 + int(r() * 60)}\n")
        return "".join(out)

    def dirsync(party):
        def body():
            return (f"{party} {pick(people)}\noperation {pick(('update', 'reload', 'query'))}\n"
                    f"command {pick(('send-updates', 'request-updates'))}\n"
                    f"flags {pick(('0', '1', '3'))}\nreload-posn {int(r() * 1000)}\n"
                    f"export-directory /var/spool/dirsync/export\n"
                    f"import-directory /var/spool/dirsync/import\n"
                    f"max-reply-size 65536\nsending-ref {state['n'] % 100000}\n"
                    f"request-id R{int(r() * 1000000)}\nsubject Directory update\n"
                    f"syn-timestamp {state['t']}\n")
        return body

    def subsystem_start():
        return f"subsystem {1 + int(r() * 12)}\nuser sysadm\n"

    def subsystem_stop():
        return f"subsystem {1 + int(r() * 12)}\nuser sysadm\nduration {int(r() * 86400)}\n"

    bodies = {
        "routing": routing, "delivery": delivery, "user-signon": signon,
        "user-signoff": signoff, "x400-out": x400_out, "x400-in": x400_in,
        "unix-out": unix_out, "unix-in": unix_in, "fax": fax, "request": request,
        "bulletin": bulletin, "desk-in": desk_in, "desk-out": desk_out, "sms-out": sms,
        "sms-in": sms, "ekscan": ekscan, "notes-in": notes, "notes-out": notes,
        "dirsync-in": dirsync("originator"), "dirsync-out": dirsync("recipient"),
        "subsystem-start": subsystem_start, "subsystem-stop": subsystem_stop,
    }
    names = [k for k, _ in KINDS]
    weights = [1 if small else w for _, w in KINDS]

    def sections(count):
        """Yields the text of `count` sections, each with its blank line(s) after it."""
        for kind in sample(names, weights, k=count):
            # Mostly one second apart, sometimes a quiet spell.
            x = r()
            state["t"] += 1 if x < 0.95 else 2 + int((x - 0.95) * 100)
            header = f"audit {state['t']}\n" if x > 0.05 else f"audit {state['t']} pid=4711\n"
            yield "".join((kind, "\n", header, bodies[kind](), pick(SEPARATORS)))

    return sections


def generate(out, count, start, seed, small=False, chunk=20000):
    rng = random.Random(seed)
    pools = Pools(rng)
    sections = make_generator(rng, pools, start, small)
    written = 0
    while written < count:
        n = min(chunk, count - written)
        out.write("".join(sections(n)))
        written += n


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("output", help="audit file to write ('-' for standard output)")
    parser.add_argument("--sections", type=int, default=1000000, help="number of sections")
    parser.add_argument("--start", type=int, default=1790985600,
                        help="event time of the first section, seconds since the epoch "
                             "(default 2026-10-03 00:00 UTC)")
    parser.add_argument("--seed", type=int, default=1, help="seed of the random choices")
    parser.add_argument("--profile", choices=("default", "small"), default="default",
                        help="'small': every kind equally often, one recipient each")
    args = parser.parse_args()
    begin = time.monotonic()
    if args.output == "-":
        generate(sys.stdout, args.sections, args.start, args.seed, args.profile == "small")
    else:
        with open(args.output, "w", encoding="ascii", buffering=8 << 20) as out:
            generate(out, args.sections, args.start, args.seed, args.profile == "small")
    print(f"generate_audit: {args.sections} sections in {time.monotonic() - begin:.1f} s",
          file=sys.stderr)


if __name__ == "__main__":
    main()
