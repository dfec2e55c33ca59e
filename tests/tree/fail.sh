# The tests of the tree's checks end with the reason they fail and what the
# check said, in out.
fail() {
    echo "$1" >&2
    echo "--- the check said:" >&2
    echo "$out" >&2
    exit 1
}
