# made by packaging/generate from the program's --help
_zr_rtsp_host_names() {
    local file=() name i
    for ((i = 2; i < COMP_CWORD; i++)); do
        if [[ ${COMP_WORDS[i - 1]} == --cameras ]]; then file=(--cameras "${COMP_WORDS[i]/#\~\//$HOME/}"); fi
    done
    while IFS= read -r name; do
        if [[ $name == "$2"* ]]; then COMPREPLY+=("$(printf %q "$name")"); fi
    done < <("${1/#\~\//$HOME/}" cameras --names "${file[@]}" 2>/dev/null)
}
_zr_rtsp_host() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command= options= arguments= i
    local -i position=-1
    COMPREPLY=()
    if [[ $word == = ]]; then word=; elif [[ $before == = ]]; then before=${COMP_WORDS[COMP_CWORD-2]}; fi
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            --user | --password | --password-file | --cameras | --ca | --tag | --trace-file | --log-level | --log-file | --plugin | --report | --from | --to | --speed | --duration | --snapshot | --record | --pause-at | --pause-for | --silence | --segment-length | --segment-size | --frames | --interval | --rate-control | --metrics) ((++i)); if [[ ${COMP_WORDS[i]} == = ]]; then ((++i)); fi ;;
            -*) ;;
            : | =) ((++i)) ;; # within a word
            *) if ((position++ < 0)); then command=${COMP_WORDS[i]}; fi ;;
        esac
    done
    case $before in
        --log-level) COMPREPLY=($(compgen -W 'debug info warning error' -- "$word")); return ;;
        --frames) COMPREPLY=($(compgen -W 'all intra predicted' -- "$word")); return ;;
        --rate-control) COMPREPLY=($(compgen -W 'yes no' -- "$word")); return ;;
        --password-file | --cameras | --ca | --trace-file | --log-file | --plugin | --report | --snapshot | --record) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
        --user | --password | --tag | --from | --to | --speed | --duration | --pause-at | --pause-for | --silence | --segment-length | --segment-size | --interval | --metrics) return ;;
    esac
    case $command in
        describe) arguments=(URL) options='--sdp --help --help-all --user --password --password-file --cameras --ca --insecure --http --http-one --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        check) arguments=(URL) options='--multicast --force --report --help --help-all --user --password --password-file --cameras --ca --insecure --http --http-one --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        play) arguments=(URL) options='--tcp --udp --from --to --speed --duration --snapshot --record --preview --window --reconnect --help --help-all --multicast --pause-at --pause-for --silence --force --segment-length --segment-size --metadata --user --password --password-file --cameras --ca --insecure --http --http-one --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        replay) arguments=(URL) options='--tcp --udp --from --to --frames --interval --rate-control --immediate --speed --duration --record --help --help-all --multicast --force --segment-length --segment-size --metadata --user --password --password-file --cameras --ca --insecure --http --http-one --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        download) arguments=(URL FILE) options='--force --tcp --udp --from --to --speed --sampled --full-frame --continue --help --help-all --segment-length --segment-size --metadata --user --password --password-file --cameras --ca --insecure --http --http-one --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        tv) arguments=(URL) options='--to --tcp --duration --help --help-all --user --password --password-file --cameras --ca --insecure --http --http-one --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        watch) arguments=(FILE) options='--tcp --udp --duration --reconnect --metrics --silence --help --help-all --user --password --password-file --cameras --ca --insecure --http --http-one --tag --json --trace --trace-file --log-level --log-file --plugin' ;;
        cameras) arguments=() options='--cameras --json --help --help-all' ;;
        '') options='describe check play replay download tv watch cameras --version --help --help-all' ;;
    esac
    if [[ $word == -* || -z $command ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$word"))
    elif [[ ${arguments[position]} == FILE ]]; then
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    elif [[ ${arguments[position]} == URL ]]; then
        _zr_rtsp_host_names "$1" "$word"
    fi
}
complete -F _zr_rtsp_host zr_rtsp_host
