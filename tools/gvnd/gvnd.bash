# Completion of gvnd's command line for bash. Commands, options and plugins are those that the program itself tells of.
# A colon ends a word, so what stands behind "hostfs:" is completed as a path of its own.

_gvnd()
{
    local program=$1 cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD - 1]} command=
    [ "$COMP_CWORD" -gt 1 ] && command=${COMP_WORDS[1]}
    COMPREPLY=()

    if [ "$cur" = : ] || [ "$prev" = : ]; then
        [ "$cur" = : ] && cur=
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        return
    fi
    if [[ $cur == -* ]]; then
        local help
        help=$("$program" $command --help 2>/dev/null) # unquoted: without a command there is no word
        mapfile -t COMPREPLY < <(compgen -W "$(sed -nE 's/^ +(-[^ ]+).*/\1/p' <<<"$help" | tr , '\n')" -- "$cur")
        return
    fi
    case $command:$prev in
    :*)
        local list
        list=$("$program" --help 2>/dev/null)
        list=$(sed -nE '/^Subcommands:/,/^$/s/^  ([a-z]+) .*/\1/p' <<<"$list")
        mapfile -t COMPREPLY < <(compgen -W "$list" -- "$cur")
        ;;
    *:-p | *:--plugin | check:check)
        local names
        names=$("$program" plugins 2>/dev/null)
        compopt -o nospace
        mapfile -t COMPREPLY < <(compgen -W "$(sed -E 's/[: ].*//' <<<"$names" | sed 's/$/:/;s/^memfs:$/memfs/') so:" \
            -- "$cur")
        ;;
    mount:-o)
        compopt -o nospace
        mapfile -t COMPREPLY < <(compgen -W "ro allow_other share= writeback nocache" -- "$cur")
        ;;
    *:--capacity | *:--sddl | *:--keep | *:-c | *:--only | *:--seed | *:--steps | *:--threads | *:--stuck-after) ;;
    mount:* | import:* | export:*)
        compopt -o filenames
        local kind=-d
        [ "$prev" = --image ] && kind=-f
        mapfile -t COMPREPLY < <(compgen $kind -- "$cur")
        ;;
    *)
        compopt -o filenames
        mapfile -t COMPREPLY < <(compgen -f -- "$cur")
        ;;
    esac
}

complete -F _gvnd gvnd
