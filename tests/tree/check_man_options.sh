#!/usr/bin/env bash
# Every option that a program's --help describes is in its manual page in the
# same words, and each option the page describes is one --help still shows:
# the two are written apart, and the page must not fall behind. An option of
# the help begins at each line of its "Options:" block that starts with "  --";
# blanks and line breaks do not count, on either side.
#
#   check_man_options.sh PROGRAM PAGE [PROGRAM PAGE...]
set -uo pipefail

status=0
while [ $# -ge 2 ]; do
    program=$1 page=$2
    shift 2
    help=$("$program" --help)
    # The page as man shows it: plain ASCII, no hyphenation, no line breaks.
    text=$(groff -man -Tascii -P-cbou -rHY=0 -rLL=2000n "$page" | tr -s ' \n' '  ')
    mapfile -t options < <(awk '
        /^Options:/ { inside = 1; next }
        inside && /^$/ { exit }
        inside && /^  --/ { if (option != "") print option; option = $0; next }
        inside { option = option " " $0 }
        END { if (option != "") print option }' <<<"$help" | tr -s ' ' ' ' | sed 's/^ //')
    if [ ${#options[@]} -eq 0 ]; then
        echo "$program --help failed or shows no options" >&2
        status=1
    fi
    for option in "${options[@]}"; do
        if [[ "$text" != *"$option"* ]]; then
            echo "$(basename "$page") does not say, in these words: $option" >&2
            status=1
        fi
    done
    # And the other way: an option that the page describes (the tag of each
    # paragraph of its OPTIONS) and the program no longer has.
    while read -r name; do
        if ! printf '%s\n' "${options[@]}" | grep -qE -- "^$name( |$)"; then
            echo "$(basename "$page") describes $name, which $program --help does not" >&2
            status=1
        fi
    done < <(awk '
        /^\.SH/ { inside = ($2 == "OPTIONS") }
        inside && tag && match($0, /\\-\\-[a-z0-9\\-]+/) { print substr($0, RSTART, RLENGTH) }
        { tag = inside && /^\.TP/ }' "$page" | sed 's/\\-/-/g')
done
exit "$status"
