#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Another language on the C interface: Python's ctypes and nothing else.

The program loads libharvo-fw.so.0, becomes a framework endpoint through
the plain-function gadget interface (a gadget record with a create
callback, pelx_init_ui_gadget, then the create operation the library put
into the module table), and then, with pelx_ functions only:
  * subscribes to the signal "tick" of the endpoint "pysrc" with a Python
    callback, which `harvo-bus emit` (a framework endpoint) broadcasts;
  * sends the signal "hello", which `harvo-bus listen` (a framework
    endpoint) receives and prints.
Signals are delivered on the default GLib main context, which this program
iterates itself, as a UI host's loop would.

Usage: ctypes_signal.py LIBHARVO HARVO_BUS_TOOL   (DBUS_SYSTEM_BUS_ADDRESS set)
Prints "N passed, N failed" and exits non-zero on failure.
"""

import ctypes
import json
import os
import re
import subprocess
import sys
import time

LIB_PATH, TOOL = sys.argv[1], sys.argv[2]

harvo = ctypes.CDLL(LIB_PATH)
glib = ctypes.CDLL("libglib-2.0.so.0")

glib.g_main_context_iteration.argtypes = [ctypes.c_void_p, ctypes.c_int]
glib.g_main_context_iteration.restype = ctypes.c_int


class UgModuleOps(ctypes.Structure):
    """struct ug_module_ops: nine operations, three reserved, priv, opt."""
    _fields_ = [(name, ctypes.c_void_p) for name in (
        "create", "start", "pause", "resume", "destroy", "message", "event",
        "key_event", "destroying")] + [
        ("reserved", ctypes.c_void_p * 3),
        ("priv", ctypes.c_void_p),
        ("opt", ctypes.c_int),
    ]


CREATE_CB = ctypes.CFUNCTYPE(ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int,
                             ctypes.c_void_p, ctypes.c_void_p)
MODULE_CREATE = CREATE_CB  # the table's create has the same shape
SIGNAL_CB = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p,
                             ctypes.c_void_p, ctypes.c_void_p)

harvo.pelx_create_gadget_activity_ops.argtypes = [ctypes.c_void_p]
harvo.pelx_create_gadget_activity_ops.restype = ctypes.c_void_p
harvo.pelx_set_gadget_create_cb.argtypes = [ctypes.c_void_p, CREATE_CB]
harvo.pelx_init_ui_gadget.argtypes = [ctypes.POINTER(UgModuleOps), ctypes.c_void_p,
                                      ctypes.c_int, ctypes.c_char_p, ctypes.c_bool]
harvo.pelx_init_ui_gadget.restype = ctypes.c_int
harvo.pelx_exit_ui_gadget.argtypes = [ctypes.POINTER(UgModuleOps)]
harvo.pelx_exit_ui_gadget.restype = ctypes.c_void_p
harvo.pelx_destory_gadget_activity_ops.argtypes = [ctypes.c_void_p]
harvo.pelx_create_message.restype = ctypes.c_void_p
harvo.pelx_destroy_message.argtypes = [ctypes.c_void_p]
harvo.pelx_set_message_info.argtypes = [ctypes.c_void_p, ctypes.c_void_p]
harvo.pelx_set_message_type.argtypes = [ctypes.c_void_p, ctypes.c_void_p]
harvo.pelx_set_message_code.argtypes = [ctypes.c_void_p, ctypes.c_uint]
harvo.pelx_get_message_info.argtypes = [ctypes.c_void_p]
harvo.pelx_get_message_info.restype = ctypes.c_char_p
harvo.pelx_get_message_code.argtypes = [ctypes.c_void_p]
harvo.pelx_get_message_code.restype = ctypes.c_uint
harvo.pelx_send_signal.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_void_p]
harvo.pelx_send_signal.restype = ctypes.c_bool
harvo.pelx_subscribe_signal.argtypes = [ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p,
                                        SIGNAL_CB, ctypes.c_void_p]
harvo.pelx_subscribe_signal.restype = ctypes.c_bool
harvo.pelx_get_app_name.restype = ctypes.c_char_p

libc = ctypes.CDLL(None)
libc.strdup.argtypes = [ctypes.c_char_p]
libc.strdup.restype = ctypes.c_void_p  # the record takes it over and frees it

passed = failed = 0


def check(condition, what):
    global passed, failed
    if condition:
        passed += 1
        print("ok   - " + what)
    else:
        failed += 1
        print("FAIL - " + what)


def iterate_until(condition, seconds=20.0):
    """Serves the default main context until |condition()| holds."""
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        glib.g_main_context_iteration(None, 0) or time.sleep(0.005)
    return condition()


# A gadget's bus name starts with the application's name; without an
# application in the process it is the executable's file name, made legal:
# other characters become "_", and an element that starts with a digit
# gets a "_" in front ("python3.11" -> "python3._11").
process = os.path.basename(os.readlink("/proc/self/exe"))
prefix = re.sub(r"[^0-9A-Za-z_.]", "_", process)
prefix = re.sub(r"(^|\.)([0-9])", r"\1_\2", prefix)
ENDPOINT = "pyg"

# 1. Become an endpoint: a gadget record whose create callback returns a
#    layout object, then the create operation that pelx_init_ui_gadget put
#    into the module table (a UI host would call it through ug_create).
layout = ctypes.create_string_buffer(b"layout")


@CREATE_CB
def on_create(ug, mode, service, priv):
    return ctypes.addressof(layout)


gops = harvo.pelx_create_gadget_activity_ops(None)
harvo.pelx_set_gadget_create_cb(gops, on_create)
ops = UgModuleOps()
check(harvo.pelx_init_ui_gadget(ctypes.byref(ops), gops, 0, ENDPOINT.encode(), True) == 0,
      "pelx_init_ui_gadget fills the module table")
create = MODULE_CREATE(ops.create)
check(create(None, 0, None, ops.priv) == ctypes.addressof(layout),
      "the create operation returns the gadget's layout")

# 2. Subscribe with a Python callback to "tick" from the endpoint "pysrc".
received = []


@SIGNAL_CB
def on_tick(sender, signal_name, message, user_data):
    info = harvo.pelx_get_message_info(message)
    received.append((sender.decode(), signal_name.decode(),
                     json.loads(info.decode()) if info else None,
                     harvo.pelx_get_message_code(message)))


check(harvo.pelx_subscribe_signal(ENDPOINT.encode(), b"pysrc", b"tick", on_tick, None),
      "pelx_subscribe_signal to pysrc's tick")
emit = subprocess.run([TOOL, "emit", "--name", "pysrc", "tick", "--json", '{"n":7}',
                       "--code", "3"], capture_output=True, text=True, timeout=30)
check(emit.returncode == 0, "harvo-bus emits tick (%s)" % emit.stdout.strip())
check(iterate_until(lambda: len(received) == 1), "the Python callback received tick")
if received:
    check(received[0] == ("pysrc", "tick", {"n": 7}, 3),
          "with sender, name, JSON body and code: %r" % (received[0],))

# 3. Send "hello" to a framework endpoint that listens for it.
listener = subprocess.Popen([TOOL, "listen", prefix + "." + ENDPOINT, "hello", "--count", "1",
                             "--timeout", "20000"], stdout=subprocess.PIPE, text=True)
ready = listener.stdout.readline()
check(ready.startswith("listening for hello"), "harvo-bus listens (%s)" % ready.strip())
message = harvo.pelx_create_message()
harvo.pelx_set_message_info(message, libc.strdup(b'{"greeting":"from python"}'))
harvo.pelx_set_message_type(message, libc.strdup(b"py"))
harvo.pelx_set_message_code(message, 5)
check(harvo.pelx_send_signal(ENDPOINT.encode(), b"hello", message), "pelx_send_signal hello")
harvo.pelx_destroy_message(message)
heard, _ = listener.communicate(timeout=30)
check(listener.returncode == 0, "the framework listener received hello")
check('{"greeting":"from python"}' in heard, "with its JSON body: %s" % heard.strip())

# 4. Leave as a module does: the exit entry deletes the activity.
returned = harvo.pelx_exit_ui_gadget(ctypes.byref(ops))
check(returned == gops, "pelx_exit_ui_gadget returns the record")
harvo.pelx_destory_gadget_activity_ops(returned)

print("%d passed, %d failed" % (passed, failed))
sys.exit(0 if failed == 0 else 1)
