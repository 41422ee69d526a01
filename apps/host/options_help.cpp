#include "options_help.h"

namespace zr::host {

const CommandHelp generalHelp = {R"(
Exit codes:
  0    done: described, media arrived, the recording is whole, all are alive
  1    internal error
  2    wrong usage
  3    the server cannot be reached or trusted, or gives no (proper) answer
  4    credentials missing or refused
  5    refused by the server, or its description cannot be used
  6    no media arrived, or it stopped
  7    a picture, recording or page could not be written
  8    the server ended the session or died; not all are alive (watch)
  130  ended by Ctrl-C before media arrived or a download was whole
  143  the same, by SIGTERM
)",
                                 R"(
COMMAND --help tells a command's options, with examples; COMMAND --help-all
adds what all take: --user, --password-file, --json, --trace, TLS, logs ...

Examples:
  zr_rtsp_host check rtsp://192.0.2.10/live --user admin
  zr_rtsp_host play rtsp://192.0.2.10/live --record door.mkv --duration 60
)"};

const CommandHelp describeHelp = {"", R"(
Examples:
  zr_rtsp_host describe rtsp://192.0.2.10/live --user admin --json
  zr_rtsp_host describe rtsps://192.0.2.10/live --ca authority.pem --sdp
)"};

const CommandHelp checkHelp = {R"(
Each step is ok, failed or skipped; steps that do not need a failed one go on. It
takes about 15 s. The exit code is 0 when media arrives over UDP or TCP: what only
some can (multicast, pause, seek, speed, keep-alive) does not change it. Else it is
that of the first failed step, by the list of zr_rtsp_host --help-all.
)",
                               R"(
Examples:
  zr_rtsp_host check rtsp://192.0.2.10/live --user admin
  zr_rtsp_host check rtsps://192.0.2.10/live --ca our.pem --report check.html
)"};

const CommandHelp playHelp = {R"(
Without --tcp, --udp or --multicast UDP is tried first. Where the server refuses it,
or nothing comes within 3 s of PLAY, a new session over TCP follows, and that is said.
--multicast takes the group from the server's answer, or from its description.
A stream that stays silent is said so after --silence seconds, and given up after
twice as many. --reconnect begins a session anew after pauses of 1, 2, 4 ... 30 s,
once there was media; --record then numbers its files. On a terminal a line tells
state, position, speed, rate, frames, loss and jitter, and keys steer; ? lists them.
--preview draws by images (sixel, kitty) where the terminal is known to have them,
else by half blocks. A recording is Matroska, a picture PNG: a FILE that is named for
another format, such as .mp4, is refused.
)",
                              R"(
Examples:
  zr_rtsp_host play rtsp://192.0.2.10/live --duration 10 --snapshot door.png
  zr_rtsp_host play rtsp://192.0.2.10/vod --from 5 --to 15 --speed 2
)"};

const CommandHelp replayHelp = {R"(
SETUP and PLAY require "onvif-replay", and PLAY has a range of the clock. Where
the recorder's packets tell when each frame was recorded (ONVIF replay
extension), that is the position, in UTC, on a terminal's status line and as
"time" with --json; it ends with the frame that is told to be the last.
Backwards the groups of pictures come latest first, each of them forwards. Keys
are those of play.
)",
                                R"(
Examples:
  zr_rtsp_host replay rtsp://192.0.2.2/r1 --from 2026-11-20T10:00:00Z --speed -1
  zr_rtsp_host replay nvr --from 20261120T100000Z --frames intra --interval 4000
)"};

const CommandHelp downloadHelp = {R"(
Without --tcp or --udp a server that refuses TCP is asked for UDP in a new session.
Without --speed the recording is simply played into the file. With it the server
is asked for a download, by the Scale values 101 to 108 (full frame) or 301 to 308
(sampled): only some recorders know these. Without credentials --tag is then
"plain", for an onvif source is told the speed only with its authorization. A FILE
named for another format than Matroska, such as .mp4, is refused.

After Ctrl-C, or when the server was lost, FILE is whole as far as it goes. The
same command with --continue fetches the rest, by Range, from shortly before FILE's
last key frame on, into FILE.rest.mkv beside it, and makes one file of both without
coding anything anew: the rest goes on at a key frame that both have. A FILE that
is not there is fetched from its beginning.
)",
                                  R"(
Examples:
  zr_rtsp_host download rtsp://192.0.2.10/vod day.mkv --continue
  zr_rtsp_host download rtsp://192.0.2.10/vod evening.mkv \
    --from 20260102T180000Z --to 20260102T183000Z
)"};

const CommandHelp tvHelp = {R"(
The server must offer the relation by the Content-Location of its description.
It is asked for as another source than onvif (--tag plain by default), which has
none.
)",
                            R"(
It takes a server that relays to walls.
The demo device, zr_rtsp_device, does not.

Examples:
  zr_rtsp_host tv rtsp://192.0.2.10/vod --to 192.0.2.40:5000
  zr_rtsp_host tv rtsp://192.0.2.10/vod --to 192.0.2.40:5000 --tcp --duration 60
)"};

const CommandHelp watchHelp = {R"(
FILE names a URL or a camera a line; empty lines and those that begin with # do not
count. Without it all cameras are watched.
--user and --password are for all that bring none of their own; a server that refuses
TCP is asked for UDP, without --tcp. On a terminal a
table tells each stream's state and since when, rate and loss; with --json each has
a line every 2 s; --metrics serves them at http://127.0.0.1:PORT/metrics. An
interrupt or the end of --duration waits 3 s at most for servers that do not answer.
)",
                               R"(
Examples:
  zr_rtsp_host watch cameras.txt --user admin --reconnect
  zr_rtsp_host watch cameras.txt --udp --duration 60 --json
)"};

const CommandHelp camerasHelp = {R"(
Their names stand for URLs in all commands, and in the file of watch. The file is
~/.config/zr_rtsp/cameras.toml (below XDG_CONFIG_HOME, where that is set), or that
of --cameras. It has a table a camera:

  [door]
  url = "rtsp://192.0.2.10/live"
  user = "admin"
  password-command = "secret-tool lookup camera door"

  [yard]
  url = "rtsps://192.0.2.11/live"
  user = "admin"
  password-file = "yard.secret"
  tag = "onvif"
  http = true

The password is the first line of the file, which is sought beside the cameras file,
or of what the command prints; the shell runs it when the camera is used. What the
command line says of user, password and tag goes before; http = true is --http for
this camera, http-one = true is --http-one, unless --udp or --multicast is said.
)",
                                 R"(
Examples:
  zr_rtsp_host cameras --json
  zr_rtsp_host play door --cameras site.toml
)"};

} // namespace zr::host
