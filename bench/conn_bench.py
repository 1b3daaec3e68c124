#!/usr/bin/env python3
"""Memory and threads of the RD service under waiting and hostile connections.

Starts build/vexo-host with the simulated scanner in a fresh working folder,
then runs one phase per kind of client, N connections each:
  idle       connects and sends nothing;
  slow       sends three bytes, then one more byte every 10 s (a header that
             never ends, so no single wait ever runs out);
  oversized  sends a 4 KiB header line that cannot fit the 2 KiB request area.
For each phase it prints the host's resident size and thread count before,
at the peak while the connections are open, and after the service has
dropped or answered them. The service accepts at most ten connections a
second, so the client opens them at that pace; a phase of 500 takes about a
minute to open and, for idle and slow clients, a minute more until the
whole-request limit (60 s) drops them.

Usage: bench/conn_bench.py [-n N] [--build DIR] [--kinds idle,slow,oversized]
Run it under the test lock, since the service binds 11100 (or the next free
port):  flock /tmp/vexo-test.lock bench/conn_bench.py -n 500
"""

import argparse
import os
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SCANNER = "Aratek_A600"
ACCEPT_PACE_S = 0.105  # just above the service's 100 ms pause between accepts
TRICKLE_EVERY_S = 10.0
LIMIT_S = 60.0


def host_stats(pid):
    """(resident KiB, threads) of the process, from /proc."""
    rss = threads = 0
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                rss = int(line.split()[1])
            elif line.startswith("Threads:"):
                threads = int(line.split()[1])
    return rss, threads


def fmt(stats):
    return f"{stats[0] / 1024:8.1f} MiB  {stats[1]:5d} threads"


def start_host(build, workdir):
    env = dict(os.environ, APPDATA=os.path.join(workdir, "appdata"))
    os.makedirs(env["APPDATA"], exist_ok=True)
    subprocess.run([os.path.join(build, "vexoctl"), "init-workdir", workdir, "--scanner", SCANNER,
                    "--mgmt-url", "https://127.0.0.1:8443/Zelm"], env=env, check=True,
                   stdout=subprocess.DEVNULL)
    host = subprocess.Popen([os.path.join(build, "vexo-host"), "--workdir", workdir, SCANNER], env=env,
                            stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline:
        line = host.stdout.readline()
        if not line:
            break
        if line.startswith("Start_RDservice returned"):
            if line.strip() != "Start_RDservice returned 0":
                break
            log = open(os.path.join(workdir, "rd.log")).read()
            port = re.findall(r"Server Listening On 127\.0\.0\.1 And Port (\d+)", log)
            # The host's output is not needed any more; keep its pipe drained.
            host.stdout.close()
            return host, int(port[-1])
    host.kill()
    host.wait()
    sys.exit("vexo-host did not start; see " + workdir)


def open_connections(port, n, kind, pid):
    """Opens n connections of kind at the accept pace; returns them and the peak stats seen."""
    socks = []
    peak = host_stats(pid)
    oversized = b"RDSERVICE / HTTP/1.1\r\nX-Pad: " + b"a" * 4096
    for i in range(n):
        s = socket.create_connection(("127.0.0.1", port), timeout=30)
        s.setblocking(False)
        if kind == "slow":
            s.send(b"RDS")
        elif kind == "oversized":
            try:
                s.sendall(oversized)
            except BlockingIOError:
                pass
        socks.append(s)
        if kind == "slow":
            trickle(socks, i)
        stats = host_stats(pid)
        peak = (max(peak[0], stats[0]), max(peak[1], stats[1]))
        time.sleep(ACCEPT_PACE_S)
    return socks, peak


_last_trickle = [0.0]


def trickle(socks, _i=None):
    """Sends one more header byte on every open slow connection every TRICKLE_EVERY_S."""
    now = time.monotonic()
    if now - _last_trickle[0] < TRICKLE_EVERY_S:
        return
    _last_trickle[0] = now
    for s in socks:
        if s.fileno() >= 0:
            try:
                s.send(b"E")
            except OSError:
                pass


def wait_dropped(socks, kind, timeout_s):
    """Waits until the service has closed every connection; (closed, answered 413, seconds)."""
    start = time.monotonic()
    open_socks = {s.fileno(): s for s in socks}
    answers = {}
    while open_socks and time.monotonic() - start < timeout_s:
        if kind == "slow":
            trickle(list(open_socks.values()))
        readable, _, _ = select.select(list(open_socks.values()), [], [], 0.5)
        for s in readable:
            try:
                data = s.recv(65536)
            except (BlockingIOError, InterruptedError):
                continue
            except OSError:
                data = b""
            if data:
                answers[s.fileno()] = answers.get(s.fileno(), b"") + data
                continue
            del open_socks[s.fileno()]
    too_large = sum(1 for a in answers.values() if a.startswith(b"HTTP/1.1 413"))
    return len(socks) - len(open_socks), too_large, time.monotonic() - start


def run_phase(port, pid, n, kind):
    before = host_stats(pid)
    t0 = time.monotonic()
    socks, peak = open_connections(port, n, kind, pid)
    opened_s = time.monotonic() - t0
    time.sleep(1)
    during = host_stats(pid)
    peak = (max(peak[0], during[0]), max(peak[1], during[1]))
    closed, too_large, waited_s = wait_dropped(socks, kind, LIMIT_S + 15)
    for s in socks:
        s.close()
    time.sleep(1)
    after = host_stats(pid)
    print(f"{kind}: {n} connections opened in {opened_s:.0f} s")
    print(f"  before  {fmt(before)}")
    print(f"  during  {fmt(during)}   (peak {fmt(peak)})")
    print(f"  after   {fmt(after)}")
    extra = f", {too_large} answered 413" if kind == "oversized" else ""
    print(f"  closed by the service: {closed}/{n}{extra}, the last {waited_s:.0f} s after the last was opened")
    sys.stdout.flush()


def main():
    root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("-n", type=int, default=500, help="connections per kind (500)")
    parser.add_argument("--build", default=os.path.join(root, "build"), help="build folder (./build)")
    parser.add_argument("--kinds", default="idle,slow,oversized", help="phases to run, in order")
    args = parser.parse_args()

    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    if soft < 4 * args.n + 64:
        resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4 * args.n + 64), hard))
    signal.signal(signal.SIGPIPE, signal.SIG_IGN)

    workdir = tempfile.mkdtemp(prefix="vexo_bench_")
    host, port = start_host(args.build, workdir)
    try:
        print(f"vexo-host pid {host.pid} on 127.0.0.1:{port}, {args.n} connections per kind")
        for kind in args.kinds.split(","):
            run_phase(port, host.pid, args.n, kind)
    finally:
        host.send_signal(signal.SIGTERM)
        try:
            host.wait(timeout=10)
        except subprocess.TimeoutExpired:
            host.kill()
            host.wait()
        shutil.rmtree(workdir, ignore_errors=True)


if __name__ == "__main__":
    main()
