#!/usr/bin/env python3
"""A Chromium that speaks the DevTools pipe (commands on fd 3, answers and events on fd 4) and
plays one page, so a test can choose the order of events a real Chromium leaves to chance.

FAKE_CRASH=first: a navigation to chrome://crash tells of the crash before it answers.
FAKE_CRASH=later: it answers first (net::ERR_ABORTED) and tells of the crash 300 ms later.
Any other command is answered with an empty result; scripts answer 0 until the page crashed,
and are never answered after.
"""
import json
import os
import threading
import time

commands = os.fdopen(3, "rb", buffering=0)
out = os.fdopen(4, "wb", buffering=0)
order = os.environ.get("FAKE_CRASH", "first")
sending = threading.Lock()
crashed = False
loaders = 0


def send(message):
    with sending:
        out.write(json.dumps(message).encode() + b"\0")


def event(method, params, session=None):
    message = {"method": method, "params": params}
    if session:
        message["sessionId"] = session
    send(message)


def crash(session):
    event("Inspector.targetCrashed", {}, session)
    event("Target.targetCrashed", {"targetId": "T1", "status": "crashed", "errorCode": 11})


def answer(number, session, result):
    message = {"id": number, "result": result}
    if session:
        message["sessionId"] = session
    send(message)


def navigate(number, session, url):
    global loaders, crashed
    if url == "chrome://crash":
        crashed = True  # the renderer is gone at once, whenever Chromium tells of it
        if order == "first":
            crash(session)
        answer(number, session, {"frameId": "T1", "errorText": "net::ERR_ABORTED"})
        if order != "first":
            threading.Timer(0.3, crash, [session]).start()
        return
    loaders += 1
    loader = "L%d" % loaders
    answer(number, session, {"frameId": "T1", "loaderId": loader})
    event("Page.frameStartedLoading", {"frameId": "T1"}, session)
    event("Page.frameNavigated", {"frame": {"id": "T1", "loaderId": loader, "url": url}}, session)
    event("Page.loadEventFired", {"timestamp": time.time()}, session)
    event("Page.lifecycleEvent", {"frameId": "T1", "loaderId": loader, "name": "load"}, session)
    event("Page.frameStoppedLoading", {"frameId": "T1"}, session)


buffer = b""
while True:
    chunk = commands.read(65536)
    if not chunk:
        break
    buffer += chunk
    while b"\0" in buffer:
        line, buffer = buffer.split(b"\0", 1)
        command = json.loads(line)
        if os.environ.get("FAKE_LOG"):
            with open(os.environ["FAKE_LOG"], "a") as log:
                log.write(line.decode() + "\n")
        number, method = command["id"], command["method"]
        params, session = command.get("params", {}), command.get("sessionId")
        if method == "Target.createTarget":
            answer(number, session, {"targetId": "T1"})
        elif method == "Target.attachToTarget":
            answer(number, session, {"sessionId": "S1"})
        elif method == "Target.getTargetInfo":
            answer(number, session, {"targetInfo": {"targetId": "T1", "type": "page",
                                                    "url": "http://fake/", "title": "Fake"}})
        elif method == "Page.getFrameTree":
            answer(number, session, {"frameTree": {"frame": {"id": "T1", "loaderId": "L0",
                                                             "url": "about:blank"}}})
        elif method == "Page.navigate":
            navigate(number, session, params.get("url", ""))
        elif method == "Runtime.evaluate":
            if not crashed:
                answer(number, session, {"result": {"type": "number", "value": 0}})
        elif method == "Browser.close":
            answer(number, session, {})
            break
        else:
            answer(number, session, {})
