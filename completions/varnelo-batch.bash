# bash completion for varnelo-batch

_varnelo_batch() {
    local cur prev
    COMPREPLY=()
    cur=${COMP_WORDS[COMP_CWORD]}
    prev=${COMP_WORDS[COMP_CWORD - 1]}

    case $prev in
        -o | --output)
            compopt -o filenames
            COMPREPLY=($(compgen -d -- "$cur"))
            return
            ;;
        --report | --service)
            compopt -o filenames
            COMPREPLY=($(compgen -f -- "$cur"))
            return
            ;;
        --hash)
            COMPREPLY=($(compgen -W 'crc32 md5 none' -- "$cur"))
            return
            ;;
        --size | --quality | --thumb-size | -j | --jobs)
            return
            ;;
    esac

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W '-r --recursive --hidden -0 --null -o --output --size
            --quality --omit-exif --thumbnails --thumb-size --overwrite -n --dry-run
            --report --hash -q --quiet -v --verbose -j --jobs --service -h --help
            --version' -- "$cur"))
        return
    fi
    compopt -o filenames
    COMPREPLY=($(compgen -f -- "$cur"))
}
complete -F _varnelo_batch varnelo-batch
