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
        --keep)
            # A comma-separated list: complete its last word.
            local done=${cur%"${cur##*,}"}
            compopt -o nospace
            COMPREPLY=($(compgen -P "$done" -W 'exif xmp iptc icc comment other all none' \
                -- "${cur##*,}"))
            return
            ;;
        --size | --quality | --thumb-size | -j | --jobs)
            return
            ;;
    esac

    if [[ $cur == -* ]]; then
        COMPREPLY=($(compgen -W '-r --recursive --hidden -0 --null -o --output --size
            --skip-small --quality --keep --strip-location --omit-exif --thumbnails
            --thumb-size --overwrite --prune -n --dry-run --report --hash -q --quiet -v
            --verbose -j --jobs --service -h --help --version' -- "$cur"))
        return
    fi
    compopt -o filenames
    COMPREPLY=($(compgen -f -- "$cur"))
}
complete -F _varnelo_batch varnelo-batch
