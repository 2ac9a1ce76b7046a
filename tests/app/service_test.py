"""veldrep serve under a service manager: readiness and sockets that it is started with.

   service_test.py VELDREP

The manager is this test: it speaks the protocols itself, on loopback and in a temporary folder.
"""

import fcntl
import os
import signal
import socket
import subprocess
import sys
import tempfile
import unittest
import urllib.error
import urllib.request

PATIENCE = 60
VELDREP = os.path.abspath(sys.argv.pop(1))


def listener(kind=socket.AF_INET, transport=socket.SOCK_STREAM, listening=True):
    made = socket.socket(kind, transport)
    made.bind(("127.0.0.1", 0) if kind == socket.AF_INET else "")  # "": a free name
    if listening:
        made.listen()
    return made


def url(sock):
    return "http://127.0.0.1:%d" % sock.getsockname()[1]


def status(address):
    try:
        return urllib.request.urlopen(address, timeout=PATIENCE).status
    except urllib.error.HTTPError as error:
        return error.code


class ServiceTest(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def start(self, sockets, *arguments, **variables):
        """The sockets become the descriptors 3 and so on, and LISTEN_PID the server's own, as the protocol wants."""
        copies = [fcntl.fcntl(each, fcntl.F_DUPFD, 50) for each in sockets]
        moves = "".join(f" {3 + i}<&{each}" for i, each in enumerate(copies))
        words = ["bash", "-c", f'LISTEN_PID=${{LISTEN_PID:-$$}} exec "$@"{moves}', "bash", VELDREP, "serve", "--out", "out"]
        process = subprocess.Popen([*words, *arguments], cwd=self.folder.name, text=True,
                                   pass_fds=copies, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   env={**os.environ, "LISTEN_FDS": str(len(sockets)), **variables})
        for each in copies:
            os.close(each)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def test_tells_its_states_and_shares_the_sockets(self):
        reports, page = listener(), listener()
        for name in (os.path.join(self.folder.name, "notify"), "\0veldrep-test-%d" % os.getpid()):
            with self.subTest(name), socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
                manager.bind(name)
                manager.settimeout(PATIENCE)
                # Connects before anybody accepts: after a restart too it is the next server that answers.
                early = socket.create_connection(reports.getsockname(), PATIENCE)
                early.sendall(b"GET / HTTP/1.0\r\nHost: x\r\n\r\n")
                server = self.start([page, reports], LISTEN_FDNAMES="page:veld-report-server.socket",
                                    NOTIFY_SOCKET=name.replace("\0", "@"))
                self.assertEqual(manager.recv(4096).decode(), "READY=1\nSTATUS=Serving " + url(reports))
                self.assertIn(b" 405 ", early.recv(4096))
                self.assertEqual((status(url(reports)), status(url(page) + "/healthz"), status(url(page))), (405, 200, 200))
                server.send_signal(signal.SIGHUP)
                self.assertRegex(manager.recv(4096).decode(), r"^RELOADING=1\nMONOTONIC_USEC=\d+\n")
                self.assertRegex(manager.recv(4096).decode(), r"^READY=1\n")
                server.terminate()
                self.assertRegex(manager.recv(4096).decode(), r"^STOPPING=1\n")
                output, errors = server.communicate(timeout=PATIENCE)
                self.assertEqual((server.returncode, errors.count("\n")), (0, 2), errors)  # the two 405
                self.assertIn("page on " + url(page) + "/\n", output)

    def test_refuses_what_it_cannot_use(self):
        tcp = listener()
        isnt = "3, which this process was given, isn't a TCP socket that listens"
        for problem, sockets, arguments, variables in (
                (isnt, [listener(socket.AF_UNIX)], [], {}),
                (isnt, [listener(transport=socket.SOCK_DGRAM, listening=False)], [], {}),
                (isnt, [listener(listening=False)], [], {}),
                (isnt, [], [], {"LISTEN_FDS": "1"}),
                ("expected the number of sockets", [tcp], [], {"LISTEN_FDS": "one"}),
                ("expected at most one socket for reports", [tcp, listener()], [], {}),
                ("rather than on 127.0.0.1:1;", [tcp], ["--listen", "127.0.0.1:1"], {}),
                ("rather than on 0.0.0.0:0;", [tcp], ["--listen", "0.0.0.0:0"], {}),
                ("rather than on 127.0.0.1:1;", [tcp], ["--page", "1"], {"LISTEN_FDNAMES": "page"})):
            with self.subTest(problem=problem, variables=variables):
                server = self.start(sockets, *arguments, **variables)
                self.assertIn(problem, server.communicate(timeout=PATIENCE)[1])
                self.assertEqual(server.returncode, 1)
                # The sinks are opened before the page.
                self.assertEqual(os.listdir(self.folder.name), ["out"] if "--page" in arguments else [])

    def test_other_processes_sockets_and_a_deaf_manager_change_nothing(self):
        tcp = listener()
        server = self.start([tcp], LISTEN_PID="1", NOTIFY_SOCKET=os.path.join(self.folder.name, "none"))
        self.assertNotIn(url(tcp), server.stdout.readline())
        server.terminate()
        self.assertIn("can't be told: No such file", server.communicate(timeout=PATIENCE)[1])
        self.assertEqual(server.returncode, 0)


if __name__ == "__main__":
    unittest.main(warnings="ignore")
