"""Serves a file as VLC does: python3 vlc_server.py PORT FILE. In a process of its own, for it ends with a signal."""

import ctypes
import signal
import sys


def serve(port, file):
    vlc = ctypes.CDLL("libvlc.so.5")
    vlc.libvlc_new.restype = ctypes.c_void_p
    options = [f"--rtsp-port={port}".encode(), b"--ignore-config", b"--quiet"]
    instance = vlc.libvlc_new(len(options), (ctypes.c_char_p * len(options))(*options))
    if not instance or vlc.libvlc_vlm_add_vod(ctypes.c_void_p(instance), b"v", f"file://{file}".encode(), 0, None, True, None):
        sys.exit("VLC does not serve it")
    print("listening", flush=True)
    signal.pause()


if __name__ == "__main__":
    serve(int(sys.argv[1]), sys.argv[2])
