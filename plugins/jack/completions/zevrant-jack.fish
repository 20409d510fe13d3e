# Completion of zevrant-jack's command lines for fish. The program names its options and models.
function __zevrant_jack_options
    zevrant-jack --help | string match -r -- '^  -.*' | string match -r -a -- '--[a-z]+' | sort -u
end
complete -c zevrant-jack -f -n 'string match -q -- "-*" (commandline -ct)' -a '(__zevrant_jack_options)'
complete -c zevrant-jack -s m -l model -r -a '(zevrant-jack --models 2>/dev/null)'
complete -c zevrant-jack -l from -x -a '(jack_lsp 2>/dev/null | string replace -r ":.*" "" | sort -u)'
complete -c zevrant-jack -l to -x -a '(jack_lsp 2>/dev/null | string replace -r ":.*" "" | sort -u)'
