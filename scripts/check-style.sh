#!/usr/bin/env bash
# The written rules of the tree that no compiler checks; ./test.sh runs this
# before the tests, and any finding fails it.
#
#   format    every C++ file is laid out as .clang-format says;
#   names     every name follows the naming rules of .clang-tidy;
#   results   in the program's sources (src/, tools/), a function whose
#             result says something is marked [[nodiscard]], and no result
#             of a standard function that must be used is dropped
#             (clang-tidy's modernize-use-nodiscard and
#             bugprone-unused-return-value);
#   includes  no include climbs out of its folder with "../"; the program's
#             sources (src/, tools/) name each header of the project by its
#             layer's folder ("line/adapter.h"), so that a layer's include
#             folder alone decides what it can see, and never include a
#             test hook ("*_test_hooks.h"), which only tests, the fuzz
#             targets and the source implementing the hook may use.
#
#   scripts/check-style.sh BUILD [FILE...]
#
# BUILD is a configured build folder; its compile_commands.json gives the
# flags of every source it compiles, and its layer folders those of the rest.
# Without FILEs, every C++ file of the tree is checked.
set -uo pipefail

if [ $# -lt 1 ]; then
    echo "usage: scripts/check-style.sh BUILD [FILE...]" >&2
    exit 2
fi
build=$(cd "$1" && pwd)
shift
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"

if [ $# -gt 0 ]; then
    files=("$@")
else
    mapfile -t files < <(git ls-files '*.cpp' '*.h')
fi
sources=()
for file in "${files[@]}"; do
    case "$file" in *.cpp) sources+=("$file") ;; esac
done

status=0
finding() {
    echo "$1" >&2
    status=1
}

# ---- format ----
for file in "${files[@]}"; do
    if ! clang-format --style="file:$root/.clang-format" --dry-run --Werror "$file" >/dev/null 2>&1; then
        finding "format: $file is not laid out as .clang-format says (clang-format -i $file)"
    fi
done

# ---- includes ----
while IFS= read -r hit; do
    finding "includes: $hit: climbs out of its folder"
done < <(grep -nE '^\s*#\s*include\s*"\.\./' "${files[@]}" /dev/null)
for file in "${files[@]}"; do
    # The program's sources, and a planted file in a folder named like theirs;
    # never the tests, whose fixtures sit beside them.
    place=${file#"$root"/}
    case "$place" in
        tests/* | fuzz/* | bench/*) continue ;;
        src/* | tools/* | */src/* | */tools/*) ;;
        *) continue ;;
    esac
    while IFS= read -r hit; do
        finding "includes: $file:$hit: name the header by its layer's folder"
    done < <(grep -nE '^\s*#\s*include\s*"[^/"]+"' "$file")
    # A hook's header is for tests and the fuzz targets; in the program only
    # the source that implements it (receiving_session.cpp,
    # receiving_session_test_hooks.h) includes it.
    own="$(basename "$file" .cpp)_test_hooks.h"
    while IFS= read -r hit; do
        finding "includes: $file:$hit: a test hook, for tests and the fuzz targets only"
    done < <(grep -nE '^\s*#\s*include\s*"[^"]*_test_hooks\.h"' "$file" | grep -vF "/$own\"")
done

# ---- names ----
# Sources the build compiles are checked with its flags; the others (the fuzz
# targets, a planted file) with the flags of the program's highest layer, and
# the tests' folder, whose byte pipe the fuzz targets' port is.
known=$(grep -oE '"file": "[^"]*"' "$build/compile_commands.json" | sed -E 's/"file": "(.*)"/\1/')
in_build=()
outside=()
for file in "${sources[@]}"; do
    absolute=$(cd "$(dirname "$file")" && pwd)/$(basename "$file")
    if grep -qxF "$absolute" <<<"$known"; then
        in_build+=("$file")
    else
        outside+=("$file")
    fi
done
# The program's sources get the checks of results on top of those of names,
# in the same run, so that each file is parsed once.
results_checks=modernize-use-nodiscard,bugprone-unused-return-value
program() {
    case "${1#"$root"/}" in
        tests/* | fuzz/* | bench/*) return 1 ;;
        src/* | tools/* | */src/* | */tools/*) return 0 ;;
        *) return 1 ;;
    esac
}
in_program=()
in_rest=()
for file in "${in_build[@]}"; do
    if program "$file"; then in_program+=("$file"); else in_rest+=("$file"); fi
done
tidy_findings=$(mktemp)
trap 'rm -f "$tidy_findings"' EXIT
tidy_in_build() {
    printf '%s\n' "$@" |
        xargs -P2 -n8 clang-tidy -p "$build" --config-file="$root/.clang-tidy" --quiet \
            "${extra[@]}" >>"$tidy_findings" 2>/dev/null
}
if [ ${#in_program[@]} -gt 0 ]; then
    extra=(--checks="$results_checks")
    tidy_in_build "${in_program[@]}"
fi
if [ ${#in_rest[@]} -gt 0 ]; then
    extra=()
    tidy_in_build "${in_rest[@]}"
fi
for file in "${outside[@]}"; do
    extra=()
    if program "$file"; then extra=(--checks="$results_checks"); fi
    # The fuzz targets' sandbox runs on the tests' clock and byte pipe
    # (tests/support).
    clang-tidy --config-file="$root/.clang-tidy" --quiet "${extra[@]}" "$file" -- -std=c++20 \
        -I"$build/layers/app" -I"$root/tests" -I"$(dirname "$file")" >>"$tidy_findings" 2>/dev/null
done
# A header reached through several layers' folders is found once for each.
if grep -qE '(warning|error):' "$tidy_findings"; then
    grep -E '(warning|error):' "$tidy_findings" | sort -u |
        sed -E '/\[(modernize-use-nodiscard|bugprone-unused-return-value)[],]/s/^/results: /' |
        sed -E '/^results: /!s/^/names: /' >&2
    status=1
fi

if [ "$status" -eq 0 ]; then
    echo "Style: ${#files[@]} files laid out, named, included and their results used as the tree's rules say."
fi
exit "$status"
