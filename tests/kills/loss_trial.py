"""Measures what a crash takes of a sender with storeWithin = 20 ms.

At 10,000 records a second it is what was sent in the last milliseconds; at full speed it is limited by what memory
may hold. What was accepted is in the sender's notes (loss_sender.cpp), and what was stored in the store's ledger.
"""
import array
import asyncio
import os
import shutil
import subprocess
import tempfile

RECORD_BYTES = 200
GROUP_BYTES = 256 << 10  # of the store's open group, which is lost as well
MEMORY_BYTES = 1 << 20
LONGEST_LOSS_MS = 30
BEAT_MS = 5
# A record waits for the timer, the thread that moves it, the end of its group and the write.
WAITS = 4


def accepted_at(path):
    """When each record was accepted, in nanoseconds."""
    times = array.array("q")
    with open(path, "rb") as notes:
        while True:
            part = array.array("q", notes.read(8 << 20))
            end = part.index(0) if 0 in part else len(part)
            times.extend(part[:end])
            if end < len(part) or not part:
                return times


async def kill_once(build, folder, per_second, random):
    """What was lost: records, and milliseconds from the first of them to the last; and how many milliseconds the machine
    kept a thread waiting in the last second."""
    program = lambda *names: os.path.join(build, *names)
    server_log, store, notes = (os.path.join(folder, name) for name in ("server.log", "store", "notes"))
    with open(server_log, "w") as log:
        server = subprocess.Popen([program("bin", "veldrep"), "serve", "--listen", "127.0.0.1:0", "--out",
                                   os.path.join(folder, "stored")], stdout=log, stderr=log)
    sender = None
    try:
        port = await until(lambda: port_in(server_log), server)
        command = [program("tests", "loss_sender"), program("lib", "libveld_report.so"), store,
                   f"http://127.0.0.1:{port}/in", notes]
        sender = subprocess.Popen([*command, str(per_second), str(MEMORY_BYTES)])
        await until(lambda: os.path.exists(notes) and accepted_at(notes), sender)
        await asyncio.sleep(random.uniform(0.2, 2.5))
    finally:
        for process in (sender, server):
            if process:
                process.kill()
                process.wait()
    stored = int(subprocess.run([*command, "-1", "0"], check=True, capture_output=True).stdout)
    times = accepted_at(notes)
    lost = max(0, len(times) - stored)
    return lost, (times[-1] - times[stored]) / 1e6 if lost else 0, longest_wait(notes + ".beats", times[-1])


def longest_wait(path, end):
    if not os.path.exists(path):
        return 0
    beats = [beat for beat in accepted_at(path) if end - 1e9 < beat < end]
    beats = [max(end - 1_000_000_000, beats[0] if beats else 0), *beats, end]
    return max(0, max(then - beat for beat, then in zip(beats, beats[1:])) / 1e6 - BEAT_MS)


async def until(found, process):
    for _ in range(2000):
        result = found()
        if result:
            return result
        if process.poll() is not None:
            raise RuntimeError(f"{process.args[0]} has ended by itself")
        await asyncio.sleep(0.01)
    raise RuntimeError(f"{process.args[0]} doesn't start")


def port_in(log):
    with open(log) as lines:
        return next((line.strip().rsplit(":", 1)[1] for line in lines if line.startswith("listening on ")), None)


def run(kind, build, rounds, random):
    losses = []
    for _ in range(rounds):
        folder = tempfile.mkdtemp(prefix="kill_test.")
        losses.append(asyncio.run(kill_once(build, folder, 10_000 if kind == "soon" else 0, random)))
        shutil.rmtree(folder)
    records = sorted(lost for lost, _, _ in losses)
    times = sorted(milliseconds for _, milliseconds, _ in losses)
    print(f"{kind}: {rounds} kills; lost in the middle {records[rounds // 2]} records of {times[rounds // 2]:.1f} ms, "
          f"at most {records[-1]} records ({records[-1] * RECORD_BYTES:,} bytes) of {times[-1]:.1f} ms; a thread waited "
          f"for the machine for at most {max(wait for _, _, wait in losses):.1f} ms")
    if kind == "soon":
        return all(milliseconds <= LONGEST_LOSS_MS + WAITS * wait for _, milliseconds, wait in losses)
    return records[-1] * RECORD_BYTES <= MEMORY_BYTES + GROUP_BYTES + RECORD_BYTES
