#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A harvo-fw client in Python: greets the service "hello_py", learns of an
asynchronous send to a service that does not run, and says bye.

    HARVO_LOG=W python3 hello_client.py
"""

import json
import sys

import harvo_fw

client = harvo_fw.Endpoint("hello_py_client")
if not client.wait_for("hello_py"):
    sys.exit("hello_py is not running: start hello_service.py first")

# A synchronous send: the answer comes back at once.
ok, _, _, text = client.send("hello_py", "hello", json.dumps({"name": "python"}), code=7)
print("hello: %s %s" % (ok, text))

# An asynchronous send to nobody: the failure handler learns of it.
failures = []
client.on_failure(lambda dest, method, kind, code, name, text: failures.append((dest, name)))
client.post("nobody_home", "hello", "{}")
while not failures:
    client.iterate(100)
print("failed: %s %s" % failures[0])

ok, _, _, text = client.send("hello_py", "bye", "{}")
print("bye: %s %s" % (ok, text))
client.close()
sys.exit(0 if ok else 1)
