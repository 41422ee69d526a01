# made by packaging/generate from the program's --help
_zr_rtsp_host() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command= options= i
    COMPREPLY=()
    for ((i = 1; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i]} != -* ]]; then command=${COMP_WORDS[i]}; break; fi
    done
    case $before in
        --log-level) COMPREPLY=($(compgen -W 'debug info warning error' -- "$word")); return ;;
        --frames) COMPREPLY=($(compgen -W 'all intra predicted' -- "$word")); return ;;
        --rate-control) COMPREPLY=($(compgen -W 'yes no' -- "$word")); return ;;
        --password-file | --cameras | --ca | --trace-file | --log-file | --plugin | --report | --snapshot | --record) compopt -o filenames; COMPREPLY=($(compgen -f -- "$word")); return ;;
        --user | --password | --tag | --from | --to | --speed | --duration | --pause-at | --pause-for | --silence | --segment-length | --segment-size | --interval | --metrics) return ;;
    esac
    case $command in
        describe) options='--sdp --help --help-all --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        check) options='--multicast --force --report --help --help-all --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        play) options='--tcp --udp --from --to --speed --duration --snapshot --record --preview --window --reconnect --help --help-all --multicast --pause-at --pause-for --silence --force --segment-length --segment-size --metadata --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        replay) options='--tcp --udp --from --to --frames --interval --rate-control --immediate --speed --duration --record --help --help-all --multicast --force --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        download) options='--force --tcp --udp --from --to --speed --sampled --full-frame --continue --help --help-all --segment-length --segment-size --metadata --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        tv) options='--to --tcp --duration --help --help-all --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        watch) options='--tcp --udp --duration --reconnect --metrics --silence --help --help-all --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        cameras) options='--help --help-all --user --password --password-file --cameras --ca --insecure --http --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        '') options='describe check play replay download tv watch cameras --version --help --help-all' ;;
    esac
    if [[ $word == -* || -z $command ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$word"))
    elif [[ $command == download || $command == watch ]]; then
        compopt -o filenames
        COMPREPLY=($(compgen -f -- "$word"))
    fi
}
complete -F _zr_rtsp_host zr_rtsp_host
