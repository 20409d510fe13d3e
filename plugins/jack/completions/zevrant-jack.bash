# Completion of zevrant-jack's command lines for bash. The program names its options and models.
_zevrant_jack() {
    local current=${COMP_WORDS[COMP_CWORD]} previous=${COMP_WORDS[COMP_CWORD-1]} words=
    case $previous in
        -m|--model) words=$("${COMP_WORDS[0]}" --models 2>/dev/null) ;;
        --from|--to) words=$(jack_lsp 2>/dev/null | sed 's/:.*//' | sort -u) ;;
        *) [[ $current != -* ]] || words=$("${COMP_WORDS[0]}" --help | grep -o -- '^  -[-a-z,]*' | tr , ' ') ;;
    esac
    COMPREPLY=($(compgen -W "$words" -- "$current"))
}
complete -o default -F _zevrant_jack zevrant-jack
