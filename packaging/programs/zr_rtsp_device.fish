# made by packaging/generate from the program's --help
complete -c zr_rtsp_device -f
complete -c zr_rtsp_device -s h -l help -d 'Print this help message and exit'
complete -c zr_rtsp_device -l version -d 'Print the version'
complete -c zr_rtsp_device -l address -x -d 'Address to listen on, IPv4 (default: 127.0.0.1)'
complete -c zr_rtsp_device -l port -x -d 'Port to listen on, 0: a free one (default: 0)'
complete -c zr_rtsp_device -l user -x -d 'User name that clients must give; without it everybody may come in'
complete -c zr_rtsp_device -l password -x -d 'Its password'
complete -c zr_rtsp_device -l auth -x -a 'basic digest' -d 'How they give it: basic or digest (default)'
complete -c zr_rtsp_device -l tls -r -F -d 'Serve rtsps with this certificate and its private key, PEM files'
complete -c zr_rtsp_device -l session-timeout -x -d 'Seconds until a silent client\'s session ends (over TCP only a paused one) (default: 60)'
complete -c zr_rtsp_device -l vod-length -x -d 'Seconds of the recording at /vod (default: 24)'
complete -c zr_rtsp_device -l replay-from -x -d 'Also serve /replay, as an ONVIF recorder does: when the recording began, such as 20261120T100000Z (without rate control only over TCP)'
complete -c zr_rtsp_device -l pattern -x -a 'smpte smpte75 ball bar pinwheel spokes zone-plate' -d 'The picture (default: smpte)'
