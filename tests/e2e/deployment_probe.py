"""Stands where the front end would, and does what the query says. Its argument is
the folder for its notes."""

import json, os, signal, sys, time


def env():
    return json.dumps(dict(os.environ))


def memory():
    try:
        return str(len(bytearray(1 << 30)))
    except MemoryError:
        return "refused"


def wait():
    note("begun")
    time.sleep(1000)


def wait_stubbornly():
    signal.signal(signal.SIGTERM, signal.SIG_IGN)
    wait()


def spin():
    while True:
        note(str(time.process_time()))
        for _ in range(1000000):
            pass


def refuse():
    print("Status: 413 Content Too Large\r\n\r\nToo much.", end="")
    print("." * int(value or 0), end="", flush=True)
    os._exit(0)


def send():
    size, promised = value.split("&")
    print("Content-Type: application/octet-stream\r")
    if promised:
        print(f"Content-Length: {promised}\r")
    print("\r", flush=True)
    note("begun")
    for _ in range(int(size) >> 16):
        sys.stdout.buffer.write(bytes(65536))
    sys.stdout.flush()


def send_all():
    send()
    os._exit(0)


def send_part():
    send()
    os.kill(os.getpid(), signal.SIGTERM)


def parent():
    with open(f"/proc/{os.getppid()}/comm") as name:
        return name.read().strip()


def end():
    if name == "signal":
        os.kill(os.getpid(), int(value))
    sys.exit(int(value))


def become():
    uid, gid = map(int, value.split("&"))
    note("begun")
    os.setgroups([])
    os.setgid(gid)
    os.setuid(uid)
    time.sleep(1000)


def note(text):
    path = sys.argv[1] + "/" + name
    with open(path + ".new", "w") as notes:
        notes.write(f"{os.getpid()} {text}")
    os.rename(path + ".new", path)


_, _, request = os.environ["QUERY_STRING"].partition("probe=")
action, _, value = request.partition("&")
name, _, value = value.partition("&")
answer = globals()[action]()
print("Content-Type: text/plain\r\n\r\n" + answer, end="")
