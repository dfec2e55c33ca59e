#!/usr/bin/env bash
# Fails when the engine's flow runs in a circle: when a function of one of its
# files leads, through calls of other files, back to a function of the first.
# The one way back allowed is EndCall, the ends' table in call_end.cpp: whoever
# ends a call calls it, and what its table runs may be anywhere.
#
#   tests/tree/check_engine_cycles.sh NM LIBRARY
#
# LIBRARY is the engine's static library as the build made it: its symbols say
# what the compiler saw, whatever the text looks like. Each source's object
# defines (T) its functions that others can reach and needs (U) each function
# of another source that it calls or whose address it takes, a call in a
# header's inline function counting for the source that uses it.
set -uo pipefail

if [ $# -ne 2 ]; then
    echo "usage: tests/tree/check_engine_cycles.sh NM LIBRARY" >&2
    exit 2
fi

symbols=$("$1" -A -P -C "$2") && [ -n "$symbols" ] || {
    echo "cannot read the symbols of $2" >&2
    exit 2
}

# Lines are "lib.a[name.cpp.o]: Ns::Name(args...) T 0 1a", or end in U. Each
# cycle is found once, from its first file in name order, through later files.
awk '
    {
        at = index($0, ".o]: ")
        member = substr($0, 1, at - 1)
        sub(/^.*\[/, "", member)
        symbol = substr($0, at + 5)
        if (sub(/ T [0-9a-f]+( [0-9a-f]+)? *$/, "", symbol)) {
            definer[symbol] = member
        } else if (sub(/ U *$/, "", symbol)) {
            caller[++needs] = member
            callee[needs] = symbol
        }
    }
    function walk(at, depth,    next_files, n, i, to, j, text) {
        path[depth] = at
        on_path[at] = 1
        n = split(out[at], next_files, " ")
        for (i = 1; i <= n; i++) {
            to = next_files[i]
            if (to == start) {
                text = ""
                for (j = 1; j <= depth; j++) {
                    text = text path[j] " -> "
                    on_cycle[path[j], j < depth ? path[j + 1] : start] = 1
                }
                cycle[++cycles] = depth "\t  " text start
            } else if (to > start && !on_path[to]) {
                walk(to, depth + 1)
            }
        }
        on_path[at] = 0
    }
    END {
        for (i = 1; i <= needs; i++) {
            if (!(callee[i] in definer) || definer[callee[i]] == caller[i]) {
                continue
            }
            from = caller[i]
            to = definer[callee[i]]
            # The function by its name alone, "Ns::Name", and the way back by
            # the last part of that.
            name = callee[i]
            sub(/\(.*$/, "", name)
            last = name
            sub(/^.*::/, "", last)
            if ((last == "EndCall" && to == "call_end.cpp") || seen[from, to, name]++) {
                continue
            }
            if (!((from, to) in names)) {
                edge[++edges] = from SUBSEP to
                out[from] = out[from] " " to
                node[from] = node[to] = 1
            }
            names[from, to] = names[from, to] (names[from, to] == "" ? "" : ", ") name
        }
        for (start in node) {
            walk(start, 1)
        }
        if (cycles == 0) {
            print "No file of the engine calls back into a file that calls it, but through EndCall."
            exit 0
        }
        errors = "/dev/stderr"
        print "The engine'"'"'s files call one another in a circle (only EndCall may lead back):" >errors
        fflush(errors)
        for (i = 1; i <= cycles; i++) {
            print cycle[i] | "sort -n | cut -f2 >&2"
        }
        close("sort -n | cut -f2 >&2")
        print "The calls on those circles:" >errors
        for (i = 1; i <= edges; i++) {
            if (edge[i] in on_cycle) {
                split(edge[i], ends, SUBSEP)
                print "  " ends[1] " -> " ends[2] ": " names[edge[i]] >errors
            }
        }
        exit 1
    }' <<<"$symbols"
