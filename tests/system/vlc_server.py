"""Serves a file as VLC does: python3 vlc_server.py PORT FILE, for each client by itself; or, with an address of this
machine and a chain of VLC's outputs behind it, by that. In a process of its own, for it ends with a signal."""

import ctypes
import signal
import sys

POINTERS = ("libvlc_new", "libvlc_media_new_path", "libvlc_media_player_new_from_media")


def serve(port, file, address="", output=""):
    vlc = ctypes.CDLL("libvlc.so.5")
    for name in POINTERS:
        getattr(vlc, name).restype = ctypes.c_void_p
    options = [f"--rtsp-port={port}", "--ignore-config", "--quiet"]
    if output:
        options += [f"--rtsp-host={address}", "--miface=lo", "--ttl=1"]
    instance = ctypes.c_void_p(vlc.libvlc_new(len(options), (ctypes.c_char_p * len(options))(*map(str.encode, options))))
    if output:
        media = ctypes.c_void_p(vlc.libvlc_media_new_path(instance, file.encode()))
        for option in (f":sout=#{output}", ":sout-all"):
            vlc.libvlc_media_add_option(media, option.encode())
        failed = vlc.libvlc_media_player_play(ctypes.c_void_p(vlc.libvlc_media_player_new_from_media(media)))
    else:
        failed = vlc.libvlc_vlm_add_vod(instance, b"v", f"file://{file}".encode(), 0, None, True, None)
    if failed:
        sys.exit("VLC does not serve it")
    print("listening", flush=True)
    signal.pause()


if __name__ == "__main__":
    serve(int(sys.argv[1]), *sys.argv[2:])
