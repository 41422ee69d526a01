"""Serves GStreamer's launch lines by gst-rtsp-server: python3 gst_server.py ADDRESS PORT MOUNT=[OPTION:]LINE...

Options: "digest" has the server want credentials, and forget its nonces after DESCRIBE; "sizes" halves the picture
of the line's capsfilter, which is named "size", three seconds after it was asked for."""

import sys

import gi

gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

from programs import PASSWORD, USER


def digest():
    """It knows its own nonces alone."""
    auth = GstRtspServer.RTSPAuth()
    auth.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
    token = GstRtspServer.RTSPToken.new()
    token.set_string("media.factory.role", "viewer")
    auth.add_digest(USER, PASSWORD, token)
    return auth


def forget_nonces(client):
    client.set_auth(digest())
    client.connect("describe-request", lambda *_: client.set_auth(digest()))


def halve(media):
    size = Gst.Caps.from_string("video/x-raw,width=320,height=180")
    media.get_element().get_by_name("size").set_property("caps", size)


def serve(address, port, mounts):
    Gst.init(None)
    server = GstRtspServer.RTSPServer(address=address, service=port)
    for mount in mounts:
        name, line = mount.split("=", 1)
        option, _, line = line.rpartition(":")
        factory = GstRtspServer.RTSPMediaFactory(launch=f"( {line} )")
        if option == "sizes":
            factory.connect("media-configure", lambda _, media: GLib.timeout_add(3000, halve, media))
        if option == "digest":
            permissions = GstRtspServer.RTSPPermissions.new()
            for permission in ("access", "construct"):
                permissions.add_permission_for_role("viewer", f"media.factory.{permission}", True)
            factory.set_permissions(permissions)
            server.connect("client-connected", lambda _, client: forget_nonces(client))
        server.get_mount_points().add_factory(f"/{name}", factory)
    server.attach(None)
    print(server.get_bound_port(), flush=True)
    GLib.MainLoop().run()


if __name__ == "__main__":
    serve(sys.argv[1], sys.argv[2], sys.argv[3:])
