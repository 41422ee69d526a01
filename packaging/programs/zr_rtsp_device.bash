# made by packaging/generate from the program's --help
_zr_rtsp_device() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command= options= arguments= i
    local -i position=-1
    COMPREPLY=()
    if [[ $word == = ]]; then word=; elif [[ $before == = ]]; then before=${COMP_WORDS[COMP_CWORD-2]}; fi
    case $before in
        --auth) COMPREPLY=($(compgen -W 'basic digest' -- "$word")); return ;;
        --pattern) COMPREPLY=($(compgen -W 'smpte smpte75 ball bar pinwheel spokes zone-plate' -- "$word")); return ;;
        --tls) compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- "$word"); return ;;
        --address | --port | --user | --password | --session-timeout | --vod-length | --replay-from) return ;;
    esac
    case $command in
        '') options='--help --version --address --port --user --password --auth --tls --session-timeout --vod-length --replay-from --pattern' ;;
    esac
    if [[ $word == -* || -z $command ]]; then
        COMPREPLY=($(compgen -W "$options" -- "$word"))
    fi
}
complete -F _zr_rtsp_device zr_rtsp_device
