# Completion for quillondb, qdb, qdb-schema and dmctl. What there is to
# say, the programs themselves tell by --help.

# Prints the options and subcommands that a help text on standard input tells
# of, a word per line.
_quillondb_words() {
    awk '/^Subcommands:/ { listed = 1; next }
         /^[^ ]/ { listed = 0 }
         listed && /^  [a-z]/ { print $1 }
         /^ *-/ || /^usage:/ {
             while (match($0, /--[a-z][a-z-]*/)) {
                 print substr($0, RSTART, RLENGTH)
                 $0 = substr($0, RSTART + RLENGTH)
             }
         }'
}

# Prints what else the command of a program takes, a word per line: tables, as far
# as there is a database that tells them.
_quillondb_tables() {
    [[ $2 != wait ]] || echo ready
    "$1" tables --csv 2>/dev/null | awk -F , 'NR > 1 { print $1 }'
}

# Fills COMPREPLY; where it stays empty, file names are offered.
_quillondb() {
    local word words
    local -a command=("$1")
    words=$("$1" --help 2>/dev/null | _quillondb_words)
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        # Anything else is an option, or the user's own.
        if [[ $word == [a-z]* ]] && grep -qxF -- "$word" <<<"$words"; then
            command+=("$word")
            words=$("${command[@]}" --help 2>/dev/null | _quillondb_words)
        fi
    done
    case ${command[0]##*/}:${command[1]-} in
    qdb:get | qdb:watch | qdb:wait)
        words+=$'\n'$(_quillondb_tables "${command[@]}")
        ;;
    esac
    # What follows these is the user's own.
    case ${COMP_WORDS[COMP_CWORD-1]} in
    --bus | --column | --database | --pipe | --socket | --statistics | --timeout | --watch) words= ;;
    esac
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}

complete -o default -F _quillondb quillondb qdb qdb-schema dmctl
