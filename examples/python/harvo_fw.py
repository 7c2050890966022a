# SPDX-License-Identifier: Apache-2.0
"""harvo-fw from Python, with the standard library's ctypes and nothing else.

A thin layer over the library's plain functions (pelx_*, see pelx.h):

    import harvo_fw
    app = harvo_fw.Endpoint("hello_py")          # the process's endpoint
    app.on_message(lambda sender, kind, code, text: '{"hi":1}')
    app.run()                                     # until app.quit()
    app.close()

The library is loaded from $HARVO_FW_LIBRARY, else as "libharvo-fw.so.0"
through the loader's usual path. Texts are JSON as a rule; this layer
passes them as Python strings and leaves the parsing to the caller.
"""

import ctypes
import os
import time

_lib = ctypes.CDLL(os.environ.get("HARVO_FW_LIBRARY", "libharvo-fw.so.0"))
_libc = ctypes.CDLL(None)

# The records' texts are taken over by the library, which frees them with
# free(): they are handed over as strdup'ed copies.
_libc.strdup.argtypes = [ctypes.c_char_p]
_libc.strdup.restype = ctypes.c_void_p

_MESSAGE_CB = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.c_char_p, ctypes.c_void_p,
                               ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p)
_REPLY_CB = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_void_p, ctypes.c_void_p)
_FAILURE_CB = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_char_p,
                               ctypes.c_uint, ctypes.c_char_p, ctypes.c_char_p,
                               ctypes.c_void_p)


def _declare(name, restype, *argtypes):
    function = getattr(_lib, name)
    function.restype = restype
    function.argtypes = list(argtypes)


_P = ctypes.c_void_p
_S = ctypes.c_char_p
_declare("pelx_create_app_endpoint", _P, _S)
_declare("pelx_destroy_app_endpoint", None, _P)
_declare("pelx_set_app_message_cb", ctypes.c_bool, _P, _MESSAGE_CB, _P)
_declare("pelx_set_app_reply_cb", ctypes.c_bool, _P, _REPLY_CB, _P)
_declare("pelx_set_send_failure_cb", ctypes.c_bool, _S, _FAILURE_CB, _P)
_declare("pelx_is_service_available", ctypes.c_bool, _S, _S)
_declare("pelx_run_loop", ctypes.c_int, _P)
_declare("pelx_iterate_loop", None, _P, ctypes.c_int)
_declare("pelx_quit_loop", None, _P)
_declare("pelx_create_message", _P)
_declare("pelx_destroy_message", None, _P)
_declare("pelx_get_message_info", _S, _P)
_declare("pelx_get_message_type", _S, _P)
_declare("pelx_get_message_code", ctypes.c_uint, _P)
_declare("pelx_set_message_info", None, _P, _P)
_declare("pelx_set_message_type", None, _P, _P)
_declare("pelx_set_message_code", None, _P, ctypes.c_uint)
_declare("pelx_send_message", ctypes.c_bool, _S, _S, _P, _P)
_declare("pelx_send_message_sync", ctypes.c_bool, _S, _S, _P, _P)


def _text(raw):
    return raw.decode() if raw is not None else ""


def _read(record):
    """(type, code, text) of a message record."""
    return (_text(_lib.pelx_get_message_type(record)), _lib.pelx_get_message_code(record),
            _text(_lib.pelx_get_message_info(record)))


def _fill(record, kind, code, text):
    _lib.pelx_set_message_type(record, _libc.strdup(kind.encode()))
    _lib.pelx_set_message_code(record, code)
    _lib.pelx_set_message_info(record, _libc.strdup(text.encode()))


class Endpoint:
    """The process's application endpoint named |name| (one per process).

    Callbacks run on the thread that created it, while it runs run() or
    iterate(). An exception raised in a message handler is printed and
    makes the sender's call fail."""

    def __init__(self, name):
        self.name = name
        self._handle = _lib.pelx_create_app_endpoint(name.encode())
        if not self._handle:
            raise RuntimeError("endpoint %s not created (see the log)" % name)
        self._callbacks = []  # the C callbacks must outlive their use

    def on_message(self, handler):
        """handler(sender, type, code, text) answers with the reply's text
        (a str), or with None for an empty reply."""

        def call(sender, message, reply, signal_name, user_data):
            kind, code, text = _read(message)
            answer = handler(_text(sender), kind, code, text)
            if answer is not None:
                _fill(reply, "", 0, answer)
            return True

        self._keep(_MESSAGE_CB(call), _lib.pelx_set_app_message_cb)

    def on_reply(self, handler):
        """handler(sender, type, code, text) for replies of post(..., want_reply=True)."""

        def call(sender, reply, user_data):
            handler(_text(sender), *_read(reply))

        self._keep(_REPLY_CB(call), _lib.pelx_set_app_reply_cb)

    def on_failure(self, handler):
        """handler(dest, method, type, code, error_name, error_text) for posts
        that fail on the bus (a missing service, a peer that died...)."""

        def call(dest, method, kind, code, error_name, error_text, user_data):
            handler(_text(dest), _text(method), _text(kind), code, _text(error_name),
                    _text(error_text))

        callback = _FAILURE_CB(call)
        self._callbacks.append(callback)
        _lib.pelx_set_send_failure_cb(self.name.encode(), callback, None)

    def send(self, dest, kind, text, code=0):
        """Synchronous send: (ok, reply_type, reply_code, reply_text)."""
        message, reply = _lib.pelx_create_message(), _lib.pelx_create_message()
        try:
            _fill(message, kind, code, text)
            ok = _lib.pelx_send_message_sync(self.name.encode(), dest.encode(), message, reply)
            return (ok,) + _read(reply)
        finally:
            _lib.pelx_destroy_message(reply)
            _lib.pelx_destroy_message(message)

    def post(self, dest, kind, text, code=0, want_reply=False):
        """Asynchronous send; the reply goes to on_reply when |want_reply|."""
        message = _lib.pelx_create_message()
        reply = _lib.pelx_create_message() if want_reply else None
        try:
            _fill(message, kind, code, text)
            return _lib.pelx_send_message(self.name.encode(), dest.encode(), message, reply)
        finally:
            if reply:
                _lib.pelx_destroy_message(reply)
            _lib.pelx_destroy_message(message)

    def available(self, name):
        """Whether the service endpoint |name| is on the bus."""
        return _lib.pelx_is_service_available(self.name.encode(), name.encode())

    def wait_for(self, name, seconds=20.0):
        """Serves this endpoint until |name| is on the bus, at most |seconds|."""
        deadline = time.monotonic() + seconds
        while not self.available(name):
            if time.monotonic() >= deadline:
                return False
            self.iterate(50)
        return True

    def run(self):
        """Serves until quit()."""
        _lib.pelx_run_loop(self._handle)

    def iterate(self, timeout_ms=100):
        """Serves what is ready, waiting at most |timeout_ms| for it (Ctrl-C
        is handled between two calls)."""
        _lib.pelx_iterate_loop(self._handle, timeout_ms)

    def quit(self):
        _lib.pelx_quit_loop(self._handle)

    def close(self):
        if self._handle:
            _lib.pelx_destroy_app_endpoint(self._handle)
            self._handle = None

    def _keep(self, callback, setter):
        self._callbacks.append(callback)
        setter(self._handle, callback, None)
