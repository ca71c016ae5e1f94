#!/usr/bin/python3
"""A local SMTP sink for tests: stores each delivered message and injects
faults on request.

    smtp_sink.py DIR PORT

Listens on 127.0.0.1:PORT until SIGTERM. Each accepted message is written
to DIR/messages/<n>.eml (the bytes as received, CR LF line ends), its
envelope to DIR/messages/<n>.json. Plain SMTP, no sign-in: the relay
behind a submission server. When ready it writes DIR/ready.

Faults: DIR/faults.json, read at every step, holds a list of
{"stage": "rcpt"|"data", "reply": "451 4.3.0 Try later", "drop": true,
 "delay": seconds, "times": n}. The first entry for a stage applies: it
delays, then answers `reply` instead of the normal answer (for "data" after
the whole message was received, which is then not stored), or with "drop"
at stage "data" stores the message and closes the connection without a
reply. "times" counts down; an entry at 0 is removed.
"""
import asyncio
import json
import os
import signal
import sys
import threading

from aiosmtpd.controller import Controller

LOCK = threading.Lock()


def take_fault(directory, stage):
    path = os.path.join(directory, "faults.json")
    with LOCK:
        try:
            with open(path) as f:
                faults = json.load(f)
        except (OSError, ValueError):
            return None
        for i, fault in enumerate(faults):
            if fault.get("stage") != stage:
                continue
            times = fault.get("times", 1) - 1
            if times <= 0:
                del faults[i]
            else:
                fault["times"] = times
            with open(path + ".tmp", "w") as f:
                json.dump(faults, f)
            os.replace(path + ".tmp", path)
            return fault
    return None


class Sink:
    def __init__(self, directory):
        self.directory = directory
        self.messages = os.path.join(directory, "messages")
        os.makedirs(self.messages, exist_ok=True)

    async def apply(self, stage):
        fault = take_fault(self.directory, stage)
        if fault and fault.get("delay"):
            await asyncio.sleep(float(fault["delay"]))
        return fault

    async def handle_RCPT(self, server, session, envelope, address, rcpt_options):
        fault = await self.apply("rcpt")
        if fault and fault.get("reply"):
            return fault["reply"]
        envelope.rcpt_tos.append(address)
        return "250 2.1.5 OK"

    def store(self, envelope):
        with LOCK:
            n = len([f for f in os.listdir(self.messages) if f.endswith(".eml")]) + 1
            base = os.path.join(self.messages, "%06d" % n)
            with open(base + ".json", "w") as f:
                json.dump({"from": envelope.mail_from, "to": envelope.rcpt_tos}, f)
            with open(base + ".eml.tmp", "wb") as f:
                f.write(envelope.original_content or envelope.content)
            os.replace(base + ".eml.tmp", base + ".eml")

    async def handle_DATA(self, server, session, envelope):
        fault = await self.apply("data")
        if fault and fault.get("reply"):
            return fault["reply"]
        self.store(envelope)
        if fault and fault.get("drop"):
            server.transport.abort()
        return "250 2.0.0 Stored"


def main():
    directory, port = sys.argv[1], int(sys.argv[2])
    kwargs = dict(hostname="127.0.0.1", port=port, enable_SMTPUTF8=True,
                  decode_data=False, server_hostname="localhost")
    controller = Controller(Sink(directory), **kwargs)
    controller.start()
    with open(os.path.join(directory, "ready"), "w") as f:
        f.write(str(os.getpid()))
    done = threading.Event()
    signal.signal(signal.SIGTERM, lambda *_: done.set())
    signal.signal(signal.SIGINT, lambda *_: done.set())
    done.wait()
    controller.stop()


if __name__ == "__main__":
    main()
