#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A harvo-fw service in Python: the endpoint "hello_py" answers "hello"
messages with a greeting and ends on "bye".

    HARVO_LOG=W python3 hello_service.py
"""

import json

import harvo_fw

app = harvo_fw.Endpoint("hello_py")
served = 0


def on_message(sender, kind, code, text):
    global served
    if kind == "bye":
        app.quit()
        return json.dumps({"bye": True, "served": served})
    served += 1
    name = json.loads(text or "{}").get("name", "stranger")
    return json.dumps({"greeting": "hello, %s" % name, "from": sender, "code": code})


app.on_message(on_message)
print("hello_py is serving", flush=True)
app.run()
app.close()
print("hello_py served %d greetings" % served, flush=True)
