"""Programs for Windows under Wine, against a report server on this machine: programs_test.py --build DIR --server VELDREP"""

import argparse
import json
import os
import socket
import subprocess
import sys
import tempfile
import unittest

OPTIONS = None
# A path that no code page of eight bits holds, longer than MAX_PATH and than the 1,040 bytes of SQLite's usual VFS.
LONG = os.path.join(*["störe-ж" * 8] * 16)


def run(program, *arguments, folder, **more):
    return subprocess.run(["wine", os.path.join(OPTIONS.build, program), *arguments], cwd=folder, timeout=100,
                          capture_output=True, encoding="utf-8", **more)


class Programs(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="veld_test.")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name

    def veldrep(self, *arguments, code=0, **more):
        ended = run("bin/veldrep.exe", *arguments, folder=self.folder, **more)
        self.assertEqual(ended.returncode, code, ended.stdout + ended.stderr)
        return ended

    def serve(self, *more):
        server = subprocess.Popen([OPTIONS.server, "serve", "--listen", "127.0.0.1:0", "--out", "out", *more],
                                  cwd=self.folder, stdout=subprocess.PIPE, encoding="utf-8")
        self.addCleanup(server.stdout.close)
        self.addCleanup(server.wait)
        self.addCleanup(server.terminate)
        for line in server.stdout:
            if line.startswith("listening on "):
                return line.split()[-1]
        self.fail("the server doesn't start")

    def stored(self):
        with open(os.path.join(self.folder, "out"), encoding="utf-8") as file:
            return [json.loads(line) for line in file]

    def test_veldrep_sends_keeps_shows_and_checks(self):
        folder = os.path.dirname(LONG)
        key, trace = os.path.join(folder, "käy" * 20), os.path.join(folder, "träce" * 20)
        os.makedirs(os.path.join(self.folder, folder))
        self.veldrep("keygen", key)
        self.assertIn("exists already", self.veldrep("keygen", key, code=1).stderr)
        send = ["send", "--store", LONG, "--sign", key + ".key.pem", "--trace", trace, "--wait", "10", "--url"]
        with open(os.path.join(self.folder, "records"), "w", encoding="utf-8") as file:
            file.write('{"n":1}\r\n{"text":"ü ж"}\nnot JSON')
        url = self.serve("--key", key + ".pub.pem")
        sent = self.veldrep(*send, url, "records", code=3)
        self.assertIn("submitted 2, delivered 2, refused lines 1, still waiting 0", sent.stdout)
        # Nothing of other users who could read the key.
        self.assertEqual(sent.stderr,
                         'veldrep: records line 3: refused: it isn\'t a JSON object: it begins with "not JSON"\n')
        with socket.socket() as refusing:
            refusing.bind(("127.0.0.1", 0))
            dead = f"http://127.0.0.1:{refusing.getsockname()[1]}/"
            kept = self.veldrep(*send[:-2], "1", "--url", dead, "-", input='{"n":2}\n').stdout
            self.assertIn("submitted 1, delivered 0, refused lines 0, still waiting 1", kept)
        self.assertIn('{"n":2}', self.veldrep("queues", "--store", LONG, "peek", dead).stdout)
        self.assertIn("good, 1 items", self.veldrep("store", "check", "--store", LONG).stdout)
        self.assertEqual(self.stored(), [{"n": 1}, {"text": "ü ж"}])
        with open(os.path.join(self.folder, LONG, "veld_rep.queue"), "r+b") as file:
            file.write(b"\0" * 100)
        self.assertIn("DAMAGED", self.veldrep("store", "check", "--store", LONG, code=1).stdout)
        self.assertIn("1 items were salvaged and 0 are lost", self.veldrep("store", "salvage", "--store", LONG).stdout)
        self.assertIn("good, 1 items", self.veldrep("store", "check", "--store", LONG).stdout)
        self.assertEqual(os.listdir(os.path.join(self.folder, LONG.split(os.sep)[0])), [LONG.split(os.sep)[1]])

    def test_veldrep_says_what_is_wrong(self):
        for arguments, more, code, said in (
                (["serve", "--out", "x"], {}, 1, "serve: isn't part of veldrep for this system"),
                (["store", "check", "--store", "nö"], {}, 1, "nö: there is no store in this folder"),
                (["send", "--store", r"Q:\no\drive", "--url", "http://127.0.0.1:9/", "-"], {"input": "{}\n"}, 1,
                 "can't make the folder"),
                (["decode"], {"input": "{}"}, 1, 'stdin: the body has no member "payload"'),
                (["decode", "nö"], {}, 1, "nö: can't be opened: "),
                (["snd"], {}, 2, "there is no command snd; did you mean send?")):
            with self.subTest(arguments):
                self.assertIn(said, self.veldrep(*arguments, code=code, **more).stderr)

    # What the system's own store says isn't tried: Wine's Schannel doesn't ask it.
    def test_https_believes_given_authorities_and_pins_alone(self):
        for name in "own", "other":
            subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                            "-subj", "/CN=localhost", "-addext", "subjectAltName=DNS:localhost", "-days", "2",
                            "-keyout", name + ".key", "-out", name + ".pem"], cwd=self.folder, check=True, capture_output=True)
        url = self.serve("--certificate", "own.pem", "--certificate-key", "own.key").replace("127.0.0.1", "localhost")
        pin, wrong = self.veldrep("pin", url).stdout.split()[0], "sha256//" + "A" * 43 + "="
        with open(os.path.join(self.folder, "record"), "w", encoding="utf-8") as file:
            file.write("{}\n")
        for number, (certificates, said) in enumerate((
                (["own.pem"], "delivered 1"), ([pin], "delivered 1"), (["own.pem", wrong, pin], "delivered 1"),
                (["other.pem"], "trust error"), ([wrong], "does not match pinned"), (["own.pem", wrong], "does not match pinned"),
                (["other.pem", pin], "trust error"))):
            with self.subTest(certificates):
                options = [word for each in certificates for word in ("--certificate", each)]
                wait = "10" if said == "delivered 1" else "1"
                sent = self.veldrep("send", "--store", f"store{number}", "--wait", wait, "--url", url,
                                    *options, "record")
                self.assertIn(said, sent.stdout + sent.stderr)
        self.assertEqual(self.stored(), [{}] * 3)

    def test_ctrl_c_ends_a_run_in_good_order(self):
        with open(os.path.join(self.folder, "récords"), "w", encoding="utf-8") as file:
            file.write("{}\n")
        with socket.create_server(("127.0.0.1", 0)) as silent, open(os.path.join(self.folder, "said"), "w+b") as said:
            command = [r"Z:" + os.path.join(OPTIONS.build, "bin/veldrep.exe"), "send", "--store", "störe", "--wait", "60",
                       "--url", f"http://127.0.0.1:{silent.getsockname()[1]}/", "récords"]
            ended = subprocess.run(["wine", os.path.join(OPTIONS.build, "tests/interrupt.exe"), "störe/veld_rep.queue",
                                    " ".join(command)], cwd=self.folder, timeout=100, stdin=subprocess.DEVNULL, stdout=said,
                                   stderr=said)
            said.seek(0)
            text = said.read().decode()
        self.assertEqual(ended.returncode, 1, text)
        self.assertRegex(text, "veldrep: récords.*: a signal ended the run.*\r\nsubmitted")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    parser.add_argument("--server", required=True)
    OPTIONS, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], *rest])
