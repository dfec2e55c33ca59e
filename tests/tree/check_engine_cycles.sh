#!/usr/bin/env bash
# Fails when the engine's flow runs in a circle: when one of its files calls a
# function of another that, through the calls of that one and of any others,
# comes back to a function of the first. The one way back that is allowed is
# EndCall, the ends' table in call_end.cpp: whoever ends a call calls it, and
# what its table runs may be anywhere.
#
#   tests/tree/check_engine_cycles.sh NM LIBRARY
#
# LIBRARY is the engine's static library as the build made it. Its symbols say
# what the compiler saw, not what the text looks like: a member of each
# source's object defines (T) the functions of that source that others can
# reach, which leaves out what is static or in an anonymous namespace, and
# needs (U) every function of another source that it calls or whose address
# it takes, wherever that function is declared. A name in a comment, in a
# string or on another class's member makes no edge, and the matching holds
# whatever the functions' parameters are. A call written in an inline function
# of a header counts for the source that uses it, since its flow goes there.
# Every cycle is named, the shortest first, and under them the calls that
# make their edges.
set -uo pipefail

if [ $# -ne 2 ]; then
    echo "usage: tests/tree/check_engine_cycles.sh NM LIBRARY" >&2
    exit 2
fi
nm_tool=$1
library=$2

symbols=$("$nm_tool" -A -P "$library") && [ -n "$symbols" ] || {
    echo "cannot read the symbols of $library" >&2
    exit 2
}

# One line per call between two sources: caller, callee, the function.
# The member's name "name.cpp.o" is inside the brackets of "lib.a[name.cpp.o]:".
calls=$(awk '
    {
        member = $1
        sub(/^.*\[/, "", member)
        sub(/\.o\]:$/, "", member)
        if ($3 == "T") {
            definer[$2] = member
        } else if ($3 == "U") {
            count++
            caller[count] = member
            callee[count] = $2
        }
    }
    END {
        for (i = 1; i <= count; i++) {
            if ((callee[i] in definer) && definer[callee[i]] != caller[i]) {
                print caller[i], definer[callee[i]], callee[i]
            }
        }
    }' <<<"$symbols" | c++filt | awk '
    {
        # The function by its name alone: "Ns::Name(args...)" becomes
        # "Ns::Name", and the way back is known by the last part of it.
        name = $3
        for (i = 4; i <= NF; i++) {
            name = name " " $i
        }
        sub(/\(.*$/, "", name)
        last = name
        sub(/^.*::/, "", last)
        if (last == "EndCall" && $2 == "call_end.cpp") {
            next
        }
        print $1 "\t" $2 "\t" name
    }' | sort -u)

# Every elementary cycle once, from its first file in name order, through
# files that come after it only; each printed as its length and its path.
cycles=$(awk -F'\t' '
    {
        if (!(($1, $2) in edge)) {
            edge[$1, $2] = 1
            out[$1] = out[$1] " " $2
        }
        node[$1] = 1
        node[$2] = 1
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
                }
                print depth "\t" text start
            } else if (to > start && !on_path[to]) {
                walk(to, depth + 1)
            }
        }
        on_path[at] = 0
    }
    END {
        for (start in node) {
            walk(start, 1)
        }
    }' <<<"$calls" | sort -t$'\t' -k1,1n -k2,2 | cut -f2)

if [ -z "$cycles" ]; then
    echo "No file of the engine calls back into a file that calls it, but through EndCall."
    exit 0
fi

echo "The engine's files call one another in a circle (only EndCall may lead back):" >&2
sed 's/^/  /' <<<"$cycles" >&2
echo "The calls on those circles:" >&2
# Each edge that lies on a cycle, with the functions that make it.
awk '
    NR == FNR {
        n = split($0, hops, " -> ")
        for (i = 1; i < n; i++) {
            on_cycle[hops[i], hops[i + 1]] = 1
        }
        next
    }
    (($1, $2) in on_cycle) {
        key = $1 " -> " $2
        if (!(key in names)) {
            order[++count] = key
            names[key] = $3
        } else {
            names[key] = names[key] ", " $3
        }
    }
    END {
        for (i = 1; i <= count; i++) {
            print "  " order[i] ": " names[order[i]]
        }
    }' FS='\t' <(echo "$cycles") FS='\t' <(echo "$calls") >&2
exit 1
