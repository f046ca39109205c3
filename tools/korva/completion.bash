# SPDX-License-Identifier: Apache-2.0
# bash completion of korva: verbs and options as the program's own --help lists them, and files.

_korva()
{
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} words
    COMPREPLY=()
    # --format=x comes as three words.
    if [ "$word" = = ]; then
        word=
    elif [ "$before" = = ]; then
        before=${COMP_WORDS[COMP_CWORD - 2]}
    fi
    if [ "$COMP_CWORD" -eq 1 ] || { [ "$COMP_CWORD" -eq 2 ] && [ "${COMP_WORDS[1]}" = help ]; }; then
        words="--help --version help $("$1" --help 2>/dev/null | sed -n '/^Subcommands:/,$s/^  \([a-z][a-z]*\) .*/\1/p')"
    elif [[ $before == --* ]]; then # the values of an option that has a fixed set of them
        words=$("$1" "${COMP_WORDS[1]}" --help 2>/dev/null |
            sed -n "s/^  [^ ]*$before\b.*{\([a-z0-9,]*\)}.*/\1/p" | tr , ' ')
    elif [[ $word == -* ]]; then
        words=$("$1" "${COMP_WORDS[1]}" --help 2>/dev/null | grep -o '^  -[^ ]*' | tr ', ' '\n')
    fi
    if [ -n "${words-}" ]; then
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    else
        mapfile -t COMPREPLY < <(compgen -f -- "$word")
    fi
}
complete -o filenames -F _korva korva
