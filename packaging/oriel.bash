# bash completion for oriel. Commands and options come from `oriel --help`, printers and variables from the product, so
# nothing here has to be kept up to date.

# Prints the words of a section of a help text: the commands of "Subcommands:", the options of "Options:".
_oriel_section() {
    "$@" --help 2>/dev/null | sed -n "/^$section:/,/^\$/{s/^  \(-[a-z],\)\{0,1\}\([a-z-][a-z-]*\).*/\2/p}"
}

# Prints the field "name" of each record of a JSON list.
_oriel_names() {
    "$@" --json 2>/dev/null | sed -n 's/^ *"name": "\(.*\)",\{0,1\}$/\1/p' | sed 's/\\\(["\\/]\)/\1/g'
}

# Offers the input lines that begin with the word, quoted for the shell.
_oriel_offer() {
    local line typed=$word quoted
    [[ $typed == [\"\']* ]] && quoted=${typed:0:1} typed=${typed:1}
    [[ $quoted ]] || typed=${typed//\\/}
    while IFS= read -r line; do
        [[ $line == "$typed"* ]] || continue
        if [[ $quoted ]]; then COMPREPLY+=("$line"); else COMPREPLY+=("$(printf '%q' "$line")"); fi
    done
}

_oriel() {
    local program=$1 word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} section
    local -a command=("$1") rest=()
    local i place commands
    local with_value='--(script|file|token-file|ca-file|cert-file|key-file|password-file|listen|listen-port|host|machine|prefix|broker-user|accept-commands|by|type|kind|user|timeout|until|driver|port|title|scope|since|device)'
    COMPREPLY=()

    # First commands and subcommands, then their arguments.
    section=Subcommands
    commands=$(_oriel_section "$program")
    for ((i = 1; i < COMP_CWORD; ++i)); do
        place=${COMP_WORDS[i]}
        if [[ $place == -* || ${COMP_WORDS[i - 1]} =~ ^($with_value)$ ]]; then continue; fi
        if [[ ${#rest[@]} -eq 0 ]] && grep -qxF -e "$place" <<<"$commands"; then
            command+=("$place")
            commands=$(_oriel_section "${command[@]}")
        else
            rest+=("$place")
        fi
    done

    case $before in
    --script | --file | --*-file)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        return
        ;;
    --by) _oriel_offer <<<$'event\nmessage\ncallback' ; return ;;
    --scope) _oriel_offer <<<$'system\nuser' ; return ;;
    --type) _oriel_offer <<<$'sz\nexpand\nmulti\ndword\nqword\nbinary\nnone' ; return ;;
    --kind | --user | --timeout | --until | --driver | --port | --title | --listen | --since | --listen-port | --host | --machine | --prefix | --broker-user | --accept-commands | --device) return ;;
    esac
    if [[ $word == -* ]]; then
        section=Options
        _oriel_offer < <(_oriel_section "${command[@]}")
        return
    fi
    if [[ $commands && ${#rest[@]} -eq 0 ]]; then
        _oriel_offer <<<"$commands"
        return
    fi
    case "${command[*]:1}" in
    "reg import")
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
        ;;
    help*)
        section=Subcommands
        [[ ${#rest[@]} -gt 0 ]] || _oriel_offer < <(_oriel_section "$program")
        ;;
    config)
        [[ ${#rest[@]} -gt 0 ]] || _oriel_offer < <(_oriel_names "$program" config)
        ;;
    reg* | "printers add" | "printers discover" | up | status | top | serve | bridge* | fleet*) ;;
    *)
        if [[ ${#rest[@]} -eq 1 && ${command[1]} =~ ^(print|record)$ ]]; then
            compopt -o filenames
            mapfile -t COMPREPLY < <(compgen -f -- "$word")
        elif [[ ${#rest[@]} -eq 0 ]]; then
            _oriel_offer < <(_oriel_names "$program" printers)
        elif [[ "${command[*]:1}" =~ ^(vars|get|info|set|watch|log)$ ]]; then
            # The name as it was typed. It is not evaluated: that could run a command the user has not confirmed.
            place=${rest[0]}
            case $place in
            \"*\" | \'*\') place=${place:1:-1} ;;
            *) place=${place//\\/} ;;
            esac
            _oriel_offer < <(_oriel_names "$program" vars "$place")
        fi
        ;;
    esac
}
complete -F _oriel oriel
